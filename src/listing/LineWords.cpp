#include "listing/LineWords.h"

namespace FTPConst {

LineWords::LineWords() {
    separator_[0] = ' ';
    separator_[1] = '\0';
}

int LineWords::split(const std::string& line) { return split(line.data(), line.size()); }

int LineWords::split(const char* line, size_t length) {
    text_.assign(line, line + length);
    text_.push_back('\0');
    return parser_.Split(&text_[0], separator_);
}

std::string LineWords::word(unsigned int index) { return parser_.getItem(index); }

}  // namespace FTPConst
