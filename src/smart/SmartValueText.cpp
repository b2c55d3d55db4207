#include "smart/SmartValueText.h"

#include <unicode/locid.h>
#include <unicode/numberformatter.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

#include "text/IcuText.h"
#include "text/Trim.h"
#include "text/Utf8.h"

namespace vantorix::smart {
namespace {

namespace number = icu::number;
using text::toUtf8;

bool isAsciiLower(char c) { return c >= 'a' && c <= 'z'; }
bool isAsciiUpper(char c) { return c >= 'A' && c <= 'Z'; }
bool isAsciiDigit(char c) { return c >= '0' && c <= '9'; }

// Decimal style with grouping and up to two fraction digits. en_US_POSIX has no grouping of its
// own, so grouping is asked for explicitly (in threes, as in every locale used here). Made once;
// formatting through a const LocalizedNumberFormatter is thread-safe.
const number::LocalizedNumberFormatter& numberFormatter(bool english) {
    static const auto make = [](const char* locale) {
        return new number::LocalizedNumberFormatter(number::NumberFormatter::withLocale(icu::Locale(locale))
                                                        .grouping(UNUM_GROUPING_ON_ALIGNED)
                                                        .precision(number::Precision::maxFraction(2)));
    };
    static const number::LocalizedNumberFormatter* posix = make("en_US_POSIX");
    static const number::LocalizedNumberFormatter* chinese = make("zh_CN");
    return english ? *posix : *chinese;
}

std::string formattedNumber(const nlohmann::ordered_json& value, bool english) {
    const auto& formatter = numberFormatter(english);
    UErrorCode status = U_ZERO_ERROR;
    std::optional<std::string> text;
    std::string plain;
    if (value.is_number_unsigned()) {
        const auto unsignedValue = value.get<std::uint64_t>();
        plain = std::to_string(unsignedValue);
        if (unsignedValue <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            text = toUtf8(formatter.formatInt(static_cast<std::int64_t>(unsignedValue), status), status);
        } else {
            // Beyond int64: through ICU's decimal number, which keeps every digit.
            text = toUtf8(formatter.formatDecimal(
                              icu::StringPiece(plain.data(), static_cast<std::int32_t>(plain.size())), status),
                          status);
        }
    } else if (value.is_number_integer()) {
        const auto signedValue = value.get<std::int64_t>();
        plain = std::to_string(signedValue);
        text = toUtf8(formatter.formatInt(signedValue, status), status);
    } else {
        const auto doubleValue = value.get<double>();
        plain = value.dump();
        text = toUtf8(formatter.formatDouble(doubleValue, status), status);
    }
    return text ? *std::move(text) : plain;
}

}  // namespace

std::string lowercased(std::string_view text) {
    // Most text is ASCII or caseless (CJK, "›"); only text with a cased non-ASCII character needs
    // ICU's full, context-sensitive mapping.
    std::string result(text);
    for (std::size_t offset = 0; offset < result.size();) {
        char& c = result[offset];
        if (static_cast<unsigned char>(c) < 0x80) {
            if (isAsciiUpper(c)) c = static_cast<char>(c - 'A' + 'a');
            ++offset;
            continue;
        }
        const auto codePoint = vantorix::text::nextCodePoint(text, offset);
        if (!codePoint || u_hasBinaryProperty(static_cast<UChar32>(*codePoint), UCHAR_CHANGES_WHEN_LOWERCASED)) {
            result.clear();
            icu::UnicodeString unicode = icu::UnicodeString::fromUTF8(
                icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
            unicode.toLower(icu::Locale::getRoot());
            unicode.toUTF8String(result);
            return result;
        }
    }
    return result;
}

std::string derivedName(std::string_view memberName) {
    std::string name;
    name.reserve(memberName.size() + 4);
    char previous = '\0';
    for (const char c : memberName) {
        if (isAsciiUpper(c) && (isAsciiLower(previous) || isAsciiDigit(previous))) name += ' ';
        name += c == '_' ? ' ' : c;
        previous = c;
    }
    const std::string_view kept = text::trimmed(name);
    return kept.empty() ? std::string(memberName) : std::string(kept);
}

std::string formattedValue(const nlohmann::ordered_json& value, bool english) {
    switch (value.type()) {
        case nlohmann::ordered_json::value_t::string:
            return std::string(text::trimmed(value.get_ref<const std::string&>()));
        case nlohmann::ordered_json::value_t::boolean:
            if (english) return value.get<bool>() ? "Yes" : "No";
            return value.get<bool>() ? "是" : "否";
        case nlohmann::ordered_json::value_t::number_integer:
        case nlohmann::ordered_json::value_t::number_unsigned:
        case nlohmann::ordered_json::value_t::number_float: return formattedNumber(value, english);
        case nlohmann::ordered_json::value_t::null: return "<null>";
        default:
            // Containers are walked, never formatted; this keeps the function total.
            return value.type_name();
    }
}

}  // namespace vantorix::smart
