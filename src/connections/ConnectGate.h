// ConnectGate: at most a fixed number of threads at once between enter() and
// leave(). The open-file table passes every new connection's connect and login
// through one, so that a recorder whose cameras all open files at the same
// moment (at start-up, or when the segments of every camera roll over
// together) never has more than that many connections waiting to be accepted
// and greeted by one server. Servers queue few connections they have not yet
// accepted (about 20 to 32 for common daemons); beyond that the system drops
// connection attempts, which then take a second or more to be retried, and the
// server, busy starting dozens of sessions at once, answers some greetings
// later than the module waits. Pooled connections never pass the gate.
//
// Thread safety: any thread may enter and leave. A POSIX semaphore, so that
// the wait needs no host class; a thread waits without a time limit of its own
// for a place (connects have none either).
#ifndef FTPDISK_CONNECTIONS_CONNECTGATE_H
#define FTPDISK_CONNECTIONS_CONNECTGATE_H

#include <semaphore.h>

class ConnectGate {
public:
    // A gate for `places` threads at once (at least 1).
    explicit ConnectGate(unsigned int places);
    ~ConnectGate();

    // Waits for a place and takes it.
    void enter();
    // Gives a place back; once for every enter().
    void leave();

    // Holds a place for its scope.
    class Place {
    public:
        explicit Place(ConnectGate& gate) : gate_(gate) { gate_.enter(); }
        ~Place() { gate_.leave(); }

    private:
        Place(const Place&);
        Place& operator=(const Place&);
        ConnectGate& gate_;
    };

private:
    ConnectGate(const ConnectGate&);
    ConnectGate& operator=(const ConnectGate&);

    sem_t places_;
    bool usable_;  // false when the semaphore could not be made: no gate then
};

#endif  // FTPDISK_CONNECTIONS_CONNECTGATE_H
