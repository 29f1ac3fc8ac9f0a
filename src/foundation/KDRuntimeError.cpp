#include "foundation/KDRuntimeError.h"

KDRuntimeError::KDRuntimeError(const char* text) : message(text != NULL ? text : "") {}

KDRuntimeError::KDRuntimeError(const std::string& text) : message(text) {}

KDRuntimeError::~KDRuntimeError() throw() {}

const char* KDRuntimeError::what() const throw() { return message.c_str(); }
