#include "ToolFormat.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace ftpdisk_tool {

namespace {

std::string printf1(const char* format, double value, const char* unit) {
    char text[64];
    std::snprintf(text, sizeof text, format, value, unit);
    return text;
}

}  // namespace

std::string humanBytes(double bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return printf1("%.0f %s", bytes, units[0]);
    }
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    // Three significant digits read best in a status line.
    return printf1(bytes < 10    ? "%.2f %s"
                   : bytes < 100 ? "%.1f %s"
                                 : "%.0f %s",
                   bytes, units[unit]);
}

std::string humanRate(double bytesPerSecond) { return humanBytes(bytesPerSecond) + "/s"; }

std::string humanMillis(double seconds) {
    const double ms = seconds * 1000;
    return printf1(ms < 10 ? "%.2f %s" : ms < 100 ? "%.1f %s" : "%.0f %s", ms, "ms");
}

std::string humanClock(double seconds) {
    long long total = static_cast<long long>(std::llround(std::max(0.0, seconds)));
    char text[32];
    if (total >= 3600) {
        std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", total / 3600, total / 60 % 60,
                      total % 60);
    } else {
        std::snprintf(text, sizeof text, "%lld:%02lld", total / 60, total % 60);
    }
    return text;
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(p / 100.0 * static_cast<double>(values.size()));
    std::size_t index = rank < 1 ? 0 : static_cast<std::size_t>(rank) - 1;
    return values[std::min(index, values.size() - 1)];
}

std::string progressLine(std::int64_t done, std::int64_t total, double elapsedSeconds, int width) {
    const double rate = elapsedSeconds > 0 ? static_cast<double>(done) / elapsedSeconds : 0;
    std::string figures;
    if (total >= 0) {
        const double fraction =
            total == 0 ? 1.0
                       : std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
        char percent[16];
        std::snprintf(percent, sizeof percent, "%3d%%", static_cast<int>(fraction * 100));
        figures = std::string(percent) + "  " + humanBytes(static_cast<double>(done)) + " / " +
                  humanBytes(static_cast<double>(total)) + "  " + humanRate(rate) + "  ETA ";
        figures += rate > 0 ? humanClock(static_cast<double>(total - done) / rate) : "--:--";
        const int barWidth = std::min(30, width - static_cast<int>(figures.size()) - 4);
        if (barWidth >= 5) {
            const int filled = static_cast<int>(fraction * barWidth);
            return "[" + std::string(filled, '#') + std::string(barWidth - filled, '-') + "]  " +
                   figures;
        }
    } else {
        figures = humanBytes(static_cast<double>(done)) + "  " + humanRate(rate) + "  " +
                  humanClock(elapsedSeconds);
    }
    if (width > 0 && static_cast<int>(figures.size()) > width) {
        figures.resize(width);
    }
    return figures;
}

std::string systemError(int error) {
    char text[256] = {0};
    // The GNU strerror_r may return a static text instead of filling ours.
    return std::string(strerror_r(error, text, sizeof text));
}

bool parseInt(const std::string& text, long long& out) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' ||
        std::isspace(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    out = value;
    return true;
}

std::string jsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u >= 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

bool parsePositiveReal(const std::string& text, double& out) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (errno != 0 || end == nullptr || *end != '\0' || !std::isfinite(value) || value <= 0) {
        return false;
    }
    out = value;
    return true;
}

}  // namespace ftpdisk_tool
