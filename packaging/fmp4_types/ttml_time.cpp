#include "packaging/fmp4_types/ttml_time.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

constexpr double kUnits = 10000000.0;
constexpr double kMaxUnits = 1e6 * 3600 * kUnits;

// Digits with at most one '.', or none.
std::optional<double> decimal(std::string_view text) {
    if (text.empty() || text.size() > 24) return std::nullopt;
    bool dot = false, digit = false;
    for (const char c : text) {
        if (c == '.' && !dot) {
            dot = true;
        } else if (c >= '0' && c <= '9') {
            digit = true;
        } else {
            return std::nullopt;
        }
    }
    if (!digit) return std::nullopt;
    return std::strtod(std::string(text).c_str(), nullptr);
}

std::optional<std::int64_t> units(double seconds) {
    const double value = seconds * kUnits;
    if (!(value >= 0) || value > kMaxUnits) return std::nullopt;
    return static_cast<std::int64_t>(std::llround(value));
}

}  // namespace

std::optional<std::int64_t> parseTtmlTime(std::string_view text, double frameRate, double tickRate) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    if (text.empty()) return std::nullopt;
    if (!(frameRate > 0)) frameRate = 30;
    if (!(tickRate > 0)) tickRate = 1;
    if (text.find(':') != std::string_view::npos) {
        std::vector<std::string_view> parts;
        for (std::size_t colon; (colon = text.find(':')) != std::string_view::npos;) {
            parts.push_back(text.substr(0, colon));
            text.remove_prefix(colon + 1);
        }
        parts.push_back(text);
        if (parts.size() < 3 || parts.size() > 4) return std::nullopt;
        const auto hours = decimal(parts[0]);
        const auto minutes = decimal(parts[1]);
        const auto seconds = decimal(parts[2]);
        if (!hours || !minutes || !seconds || parts[0].find('.') != std::string_view::npos ||
            parts[1].find('.') != std::string_view::npos || *minutes >= 60 || *seconds >= 61)
            return std::nullopt;
        double total = (*hours * 60 + *minutes) * 60 + *seconds;
        if (parts.size() == 4) {
            const auto frames = decimal(parts[3]);
            if (!frames || parts[2].find('.') != std::string_view::npos) return std::nullopt;
            total += *frames / frameRate;
        }
        return units(total);
    }
    std::size_t metric = 0;
    while (metric < text.size() && ((text[metric] >= '0' && text[metric] <= '9') || text[metric] == '.')) ++metric;
    const auto count = decimal(text.substr(0, metric));
    if (!count) return std::nullopt;
    const std::string_view unit = text.substr(metric);
    if (unit == "h") return units(*count * 3600);
    if (unit == "m") return units(*count * 60);
    if (unit == "s") return units(*count);
    if (unit == "ms") return units(*count / 1000);
    if (unit == "f") return units(*count / frameRate);
    if (unit == "t") return units(*count / tickRate);
    return std::nullopt;
}

std::string formatTtmlTime(std::int64_t hundredNs) {
    const long long ms = hundredNs <= 0 ? 0 : (hundredNs + 5000) / 10000;
    char text[40];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%03lld", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60,
                  ms % 1000);
    return text;
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
