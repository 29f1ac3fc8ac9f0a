#include "foundation/KDRuntimeError.h"

KDRuntimeError::KDRuntimeError(const char* message) : message(message != nullptr ? message : "") {}

KDRuntimeError::KDRuntimeError(const std::string& message) : message(message) {}

KDRuntimeError::~KDRuntimeError() throw() {}

const char* KDRuntimeError::what() const throw() { return message.c_str(); }
