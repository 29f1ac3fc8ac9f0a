#include "connections/ConnectGate.h"

#include <errno.h>

ConnectGate::ConnectGate(unsigned int places) : places_(), usable_(false) {
    // Should the system refuse a semaphore, connections simply go unlimited,
    // as they would without the gate; nothing else depends on it.
    usable_ = sem_init(&places_, 0, places > 0 ? places : 1) == 0;
}

ConnectGate::~ConnectGate() {
    if (usable_) {
        sem_destroy(&places_);
    }
}

void ConnectGate::enter() {
    if (!usable_) {
        return;
    }
    // A signal ends the wait early; the place is still wanted.
    while (sem_wait(&places_) != 0 && errno == EINTR) {
    }
}

void ConnectGate::leave() {
    if (usable_) {
        sem_post(&places_);
    }
}
