// TLS left out of the build: every ftps connection fails with a text that
// says so, and the module needs no TLS library.
#include "ftp/TlsContext.h"

bool TlsContext::builtIn() { return false; }

std::shared_ptr<TlsContext> TlsContext::make(const TlsTrust&, std::string* why) {
    if (why != nullptr) *why = "TLS is not built into this module (ftps locations cannot connect)";
    return std::shared_ptr<TlsContext>();
}
