// The digits come from the standard library's shortest conversion. Floats with few decimals, as most stored ones, take
// a fast path by way of an integer.
#include "persistence/json_number.h"

#include <array>
#include <cassert>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string_view>

namespace jdb::persistence {
namespace {

char* write_string(char* to, std::string_view string) {
    std::memcpy(to, string.data(), string.size());
    return to + string.size();
}

// The fast path, for numbers of at most four decimals and fifteen digits in all: then no other decimal of that length
// reads back as the number, so these digits are the shortest. Null for all others. Without it a save with one such
// number in each row takes 22 % longer.
char* write_short_decimal(char* to, double magnitude) {
    constexpr double kScale = 1e4;
    constexpr double kMax = 1e11;
    if (!(magnitude < kMax)) return nullptr;
    const auto scaled = static_cast<std::int64_t>(magnitude * kScale + 0.5);  // NOLINT(bugprone-incorrect-roundings)
    // The rounding may be off by one, in which case this fails.
    if (static_cast<double>(scaled) / kScale != magnitude) return nullptr;
    const bool below_one = scaled < 10000;
    char* end = write_integer(to, below_one ? scaled + 10000 : scaled);
    if (below_one) *to = '0';
    std::memmove(end - 3, end - 4, 4);
    end[-4] = '.';
    ++end;
    while (end[-1] == '0' && end[-2] != '.') --end;
    return end;
}

// Lays out digits and exponent as repr() does: plainly from 1e-04 up to below 1e16, else with an exponent.
char* lay_out(char* to, std::string_view digits, int exponent) {
    if (exponent < -4 || exponent >= 16) {
        *to++ = digits[0];
        if (digits.size() > 1) {
            *to++ = '.';
            to = write_string(to, digits.substr(1));
        }
        *to++ = 'e';
        *to++ = exponent < 0 ? '-' : '+';
        const int size = std::abs(exponent);
        if (size < 10) *to++ = '0';
        return write_integer(to, size);
    }
    if (exponent < 0) {
        to = write_string(to, std::string_view("0.000").substr(0, static_cast<std::size_t>(1 - exponent)));
        return write_string(to, digits);
    }
    const auto whole = static_cast<std::size_t>(exponent) + 1;
    for (std::size_t i = 0; i < whole; ++i) *to++ = i < digits.size() ? digits[i] : '0';
    *to++ = '.';
    return digits.size() > whole ? write_string(to, digits.substr(whole)) : write_string(to, "0");
}

}  // namespace

char* write_integer(char* to, std::int64_t value) { return std::to_chars(to, to + kIntegerRoom, value).ptr; }

char* write_float(char* to, double value) {
    if (std::isnan(value)) return write_string(to, "NaN");
    if (std::signbit(value)) *to++ = '-';
    const double magnitude = std::fabs(value);
    if (std::isinf(magnitude)) return write_string(to, "Infinity");
    if (char* end = write_short_decimal(to, magnitude)) return end;

    // "d.ddde±xx": the digits without the point, then the exponent.
    std::array<char, kFloatRoom> scientific;  // NOLINT(cppcoreguidelines-pro-type-member-init): filled next
    const std::to_chars_result result = std::to_chars(scientific.data(), scientific.data() + scientific.size(),
                                                      magnitude, std::chars_format::scientific);
    assert(result.ec == std::errc{});
    const char* mark = result.ptr - 1;
    while (*mark != 'e') --mark;
    int exponent = 0;
    std::from_chars(mark[1] == '+' ? mark + 2 : mark + 1, result.ptr, exponent);
    char* start = scientific.data();
    if (mark - start > 1) {
        start[1] = start[0];
        ++start;
    }
    return lay_out(to, {start, static_cast<std::size_t>(mark - start)}, exponent);
}

}  // namespace jdb::persistence
