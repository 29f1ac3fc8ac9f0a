// KDRuntimeError: the module's only exception type.
//
// It is thrown only when a SafePointer is misused (null source, destroyed
// object, count record that no longer matches); every other failure of the
// module is reported as a result value. Exported so the recorder can catch it.
#ifndef FTPDISK_FOUNDATION_KDRUNTIMEERROR_H
#define FTPDISK_FOUNDATION_KDRUNTIMEERROR_H

#include <exception>
#include <string>

#include "foundation/Export.h"

/// The module's only exception type, exported so the recorder can catch it.
/// Thrown only when a SafePointer is misused (an empty pointer used, a null
/// object wrapped, a count record that no longer matches); every other
/// failure of the interface is a result value.
class FTPDISK_EXPORT KDRuntimeError : public std::exception {
public:
    /// Carries `message`; a null text gives an empty message.
    explicit KDRuntimeError(const char* message);
    /// Carries `message`.
    explicit KDRuntimeError(const std::string& message);
    virtual ~KDRuntimeError() throw();

    /// The message, valid as long as the exception object.
    virtual const char* what() const throw();

private:
    std::string message;
};

#endif  // FTPDISK_FOUNDATION_KDRUNTIMEERROR_H
