// The small readers the tag sources share: child atoms inside a payload,
// text in its encodings, and dates.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "meta/meta.h"

bool SpanAtoms::Next(SpanAtom *atom) {
    if (!span_.Holds(at_, 8)) return false;
    const uint8_t *head = span_.Data + at_;
    uint64_t size = GetBE32(head, 0);
    size_t headLength = 8;
    if (size == 1) {
        if (!span_.Holds(at_, 16)) return false;
        size = GetBE64(head, 8);
        headLength = 16;
    } else if (size == 0) {
        size = span_.Size - at_;
    }
    if (size < headLength || size > span_.Size - at_) {
        at_ = span_.Size;  // a size that does not fit ends the walk
        return false;
    }
    std::memcpy(atom->Name, head + 4, 4);
    atom->Payload = {head + headLength, size_t(size) - headLength};
    at_ += size_t(size);
    return true;
}

bool ReadAtomPayload(MP4_local_file *file, const std::string &path, std::vector<uint8_t> *payload) {
    uint8_t *data = nullptr;
    uint64_t size = 0;
    if (MP4GetAtom(file, path.c_str(), &data, &size) != 1) return false;
    payload->assign(data, data + size);
    void *block = data;
    MP4freeData(&block);
    return true;
}

std::string Decimal(uint64_t number) {
    char text[24];
    std::snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(number));
    return text;
}

std::string NameStep(const char name[4]) {
    std::string step;
    for (int i = 0; i < 4; ++i) {
        if (uint8_t(name[i]) == 0xA9)
            step += "\xC2\xA9";
        else
            step += name[i];
    }
    return step;
}

namespace {

void AppendUtf8(uint32_t code, std::string *out) {
    if (code < 0x80) {
        *out += char(code);
    } else if (code < 0x800) {
        *out += char(0xC0 | code >> 6);
        *out += char(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        *out += char(0xE0 | code >> 12);
        *out += char(0x80 | (code >> 6 & 0x3F));
        *out += char(0x80 | (code & 0x3F));
    } else {
        *out += char(0xF0 | code >> 18);
        *out += char(0x80 | (code >> 12 & 0x3F));
        *out += char(0x80 | (code >> 6 & 0x3F));
        *out += char(0x80 | (code & 0x3F));
    }
}

void CutTrailingNuls(std::string *text) {
    while (!text->empty() && text->back() == '\0') text->pop_back();
}

}  // namespace

std::string Utf16ToUtf8(ByteSpan bytes, bool littleEndian) {
    std::string out;
    auto unit = [&](size_t at) {
        return littleEndian ? uint32_t(bytes.Data[at] | bytes.Data[at + 1] << 8)
                            : uint32_t(bytes.Data[at] << 8 | bytes.Data[at + 1]);
    };
    for (size_t at = 0; at + 1 < bytes.Size; at += 2) {
        uint32_t code = unit(at);
        if (code >= 0xD800 && code < 0xDC00 && at + 3 < bytes.Size) {
            const uint32_t low = unit(at + 2);
            if (low >= 0xDC00 && low < 0xE000) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                at += 2;
            }
        }
        if (code >= 0xD800 && code < 0xE000) code = 0xFFFD;  // a lone surrogate
        AppendUtf8(code, &out);
    }
    CutTrailingNuls(&out);
    return out;
}

std::string TextToUtf8(ByteSpan bytes, bool utf16) {
    if (bytes.Size >= 2 && bytes.Data[0] == 0xFE && bytes.Data[1] == 0xFF)
        return Utf16ToUtf8(bytes.From(2), false);
    if (bytes.Size >= 2 && bytes.Data[0] == 0xFF && bytes.Data[1] == 0xFE)
        return Utf16ToUtf8(bytes.From(2), true);
    if (utf16) return Utf16ToUtf8(bytes, false);
    if (bytes.Size >= 3 && std::memcmp(bytes.Data, "\xEF\xBB\xBF", 3) == 0) bytes = bytes.From(3);
    std::string out(reinterpret_cast<const char *>(bytes.Data), bytes.Size);
    CutTrailingNuls(&out);
    return out;
}

std::string TerminatedText(ByteSpan bytes, size_t *used) {
    const bool utf16 = bytes.Size >= 2 && ((bytes.Data[0] == 0xFE && bytes.Data[1] == 0xFF) ||
                                           (bytes.Data[0] == 0xFF && bytes.Data[1] == 0xFE));
    size_t end = 0;
    size_t terminator = 0;
    if (utf16) {
        end = 2;
        while (end + 1 < bytes.Size && (bytes.Data[end] | bytes.Data[end + 1]) != 0) end += 2;
        if (end + 1 >= bytes.Size) end = bytes.Size;
        terminator = end < bytes.Size ? 2 : 0;
    } else {
        const void *nul = std::memchr(bytes.Data, 0, bytes.Size);
        end = nul != nullptr ? size_t(static_cast<const uint8_t *>(nul) - bytes.Data) : bytes.Size;
        terminator = nul != nullptr ? 1 : 0;
    }
    *used = end + terminator;
    return TextToUtf8({bytes.Data, end}, false);
}

namespace {

// Days from 1970-01-01 to a civil date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = unsigned(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + int64_t(dayOfEra) - 719468;
}

std::string Iso8601FromUnix(int64_t seconds) {
    int64_t days = seconds / 86400;
    int64_t rest = seconds % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    // The civil date of a day count, the inverse of DaysFromCivil.
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = unsigned(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    const unsigned day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    const unsigned month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    const int64_t year = int64_t(yearOfEra) + era * 400 + (month <= 2);
    char text[48];
    std::snprintf(text, sizeof text, "%04lld-%02u-%02uT%02u:%02u:%02uZ", static_cast<long long>(year), month,
                  day, unsigned(rest / 3600), unsigned(rest / 60 % 60), unsigned(rest % 60));
    return text;
}

// Seconds from 1904-01-01 to 1970-01-01.
constexpr int64_t kSeconds1904To1970 = 2082844800;

// `count` digits at `at` as a number; false when one is not a digit.
bool Digits(const std::string &text, size_t at, size_t count, unsigned *value) {
    if (at + count > text.size()) return false;
    *value = 0;
    for (size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        *value = *value * 10 + unsigned(text[i] - '0');
    }
    return true;
}

}  // namespace

std::string Iso8601From1904(uint64_t seconds) {
    // Past year 9999 the text would not be a four-digit year.
    constexpr uint64_t kLast = 253402300799ull + kSeconds1904To1970;
    return Iso8601FromUnix(int64_t(seconds > kLast ? kLast : seconds) - kSeconds1904To1970);
}

bool NormaliseDate(const std::string &text, std::string *utc) {
    // YYYY-MM-DD[T ]hh:mm[:ss][.fff][Z|+hh[:]mm|-hh[:]mm]
    unsigned year, month, day, hour, minute, second = 0;
    if (!Digits(text, 0, 4, &year) || text.size() < 16 || text[4] != '-' || !Digits(text, 5, 2, &month) ||
        text[7] != '-' || !Digits(text, 8, 2, &day) || (text[10] != 'T' && text[10] != ' ') ||
        !Digits(text, 11, 2, &hour) || text[13] != ':' || !Digits(text, 14, 2, &minute))
        return false;
    size_t at = 16;
    if (at < text.size() && text[at] == ':') {
        if (!Digits(text, at + 1, 2, &second)) return false;
        at += 3;
        if (at < text.size() && text[at] == '.')
            for (++at; at < text.size() && text[at] >= '0' && text[at] <= '9';) ++at;
    }
    int64_t offset = 0;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        unsigned offsetHours, offsetMinutes = 0;
        const size_t sign = at;
        if (!Digits(text, at + 1, 2, &offsetHours)) return false;
        at += 3;
        if (at < text.size() && text[at] == ':') ++at;
        if (at < text.size()) {
            if (!Digits(text, at, 2, &offsetMinutes)) return false;
            at += 2;
        }
        offset = (int64_t(offsetHours) * 60 + offsetMinutes) * 60 * (text[sign] == '-' ? -1 : 1);
    } else if (at < text.size() && text[at] == 'Z') {
        ++at;
    }
    if (at != text.size() || month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
        minute > 59 || second > 60)
        return false;
    const int64_t local = DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    *utc = Iso8601FromUnix(local - offset);
    return true;
}
