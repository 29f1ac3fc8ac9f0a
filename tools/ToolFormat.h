// Text helpers of the ftpdisk command: sizes, rates, durations, latency
// percentiles, the one-line progress bar and system error texts. Pure
// functions; safe from any thread.
#ifndef FTPDISK_TOOLS_TOOLFORMAT_H
#define FTPDISK_TOOLS_TOOLFORMAT_H

#include <cstdint>
#include <string>
#include <vector>

namespace ftpdisk_tool {

// 1536 -> "1.50 KiB"; 999 -> "999 B".
std::string humanBytes(double bytes);
// Bytes per second as "12.3 MiB/s".
std::string humanRate(double bytesPerSecond);
// 0.0123 -> "12.3 ms"; 75 -> "1:15"; 3725 -> "1:02:05".
std::string humanMillis(double seconds);
std::string humanClock(double seconds);

// Nearest-rank percentile (p in 0..100) of `values`, which need not be
// sorted. Returns 0 for an empty list.
double percentile(std::vector<double> values, double p);

// One progress line without a line end, at most `width` columns:
//   "[########------------]  40%  4.00 MiB / 10.0 MiB  2.00 MiB/s  ETA 0:03"
// With total < 0 (size unknown) the bar, percentage and ETA are left out.
std::string progressLine(std::int64_t done, std::int64_t total, double elapsedSeconds, int width);

// `text` as a JSON string literal, quotes included. A server's reply may hold
// any bytes: each byte outside printable ASCII is written as the character of
// that number ("\u00e9" for byte 0xe9), so the result is valid JSON whatever
// the text holds.
std::string jsonString(const std::string& text);

// The system's text for an errno value ("No such file or directory").
std::string systemError(int error);

// Parses a whole decimal number or a positive real; false on anything else
// (trailing text, empty, out of range).
bool parseInt(const std::string& text, long long& out);
bool parsePositiveReal(const std::string& text, double& out);

}  // namespace ftpdisk_tool

#endif  // FTPDISK_TOOLS_TOOLFORMAT_H
