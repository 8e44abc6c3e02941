#include "apps/fmp4mux/inputs/subtitle_cues.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <tinyxml2.h>

#include "packaging/fmp4_types/ttml_time.h"

namespace fmp4mux {

namespace {

constexpr std::size_t kMaxWarnings = 50;
constexpr std::int64_t kMaxTime = 1000000LL * 3600 * 10000000;  // a million hours, in 100 ns

struct Line {
    std::string_view text;
    std::size_t number = 0;  // from 1
};

// The lines of a text with any of CR LF, LF or CR as the end of a line; a UTF-8 byte order mark is dropped.
std::vector<Line> splitLines(std::string_view data, std::size_t number = 1) {
    if (data.starts_with("\xEF\xBB\xBF")) data.remove_prefix(3);
    std::vector<Line> lines;
    std::size_t start = 0;
    while (start < data.size()) {
        const std::size_t end = data.find_first_of("\r\n", start);
        if (end == std::string_view::npos) {
            lines.push_back({data.substr(start), number});
            break;
        }
        lines.push_back({data.substr(start, end - start), number++});
        start = end + 1;
        if (data[end] == '\r' && start < data.size() && data[start] == '\n') ++start;
    }
    return lines;
}

bool blank(std::string_view line) {
    return std::all_of(line.begin(), line.end(), [](char c) { return c == ' ' || c == '\t'; });
}

std::string_view trim(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
}

// Digits only, at most `maxDigits`.
std::optional<std::int64_t> digits(std::string_view text, std::size_t minDigits, std::size_t maxDigits) {
    if (text.size() < minDigits || text.size() > maxDigits) return std::nullopt;
    std::int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

// [hh:]mm:ss<separator>ttt in 100 ns units; hours have two or more digits.
std::optional<std::int64_t> parseTime(std::string_view text, char separator, bool hoursOptional) {
    const std::size_t dot = text.rfind(separator);
    if (dot == std::string_view::npos) return std::nullopt;
    const auto millis = digits(text.substr(dot + 1), 3, 3);
    std::vector<std::string_view> parts;
    std::string_view clock = text.substr(0, dot);
    for (std::size_t colon; (colon = clock.find(':')) != std::string_view::npos;) {
        parts.push_back(clock.substr(0, colon));
        clock.remove_prefix(colon + 1);
    }
    parts.push_back(clock);
    if (!millis || parts.size() < 2 || parts.size() > 3 || (parts.size() == 2 && !hoursOptional)) return std::nullopt;
    std::int64_t hours = 0;
    if (parts.size() == 3) {
        const auto h = digits(parts[0], hoursOptional ? 2 : 1, 9);
        if (!h || *h > 1000000) return std::nullopt;  // a million hours at most: no overflow below
        hours = *h;
    }
    const auto minutes = digits(parts[parts.size() - 2], 2, 2);
    const auto seconds = digits(parts.back(), 2, 2);
    if (!minutes || !seconds || *minutes > 59 || *seconds > 59) return std::nullopt;
    return ((hours * 60 + *minutes) * 60 + *seconds) * 10000000 + *millis * 10000;
}

// A problem with the cue text, or none: bytes that are not UTF-8, control bytes, a tag left open or closed twice.
std::optional<std::string> textProblem(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) {
            if ((byte < 0x20 && byte != '\t' && byte != '\n') || byte == 0x7F)
                return std::string("control byte in the cue text (binary data?)");
            ++i;
            continue;
        }
        std::size_t length = byte >= 0xF0 && byte <= 0xF4 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC2 && byte < 0xE0 ? 2 : 0;
        if (byte >= 0xF5) length = 0;
        if (length == 0 || i + length > text.size()) return std::string("the cue text is not UTF-8 (wrong encoding?)");
        std::uint32_t code = byte & (length == 2 ? 0x1Fu : length == 3 ? 0x0Fu : 0x07u);
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) return std::string("the cue text is not UTF-8 (wrong encoding?)");
            code = (code << 6) | (next & 0x3Fu);
        }
        if ((length == 3 && (code < 0x800 || (code >= 0xD800 && code <= 0xDFFF))) ||
            (length == 4 && (code < 0x10000 || code > 0x10FFFF)))
            return std::string("the cue text is not UTF-8 (wrong encoding?)");
        i += length;
    }
    // Tags: each opened tag (<b>, <i.class>, <v Name>, ...) closed in order; timestamps (<00:01.000>) stand alone.
    std::vector<std::string> open;
    for (std::size_t at = text.find('<'); at != std::string_view::npos; at = text.find('<', at + 1)) {
        const std::size_t close = text.find('>', at);
        if (close == std::string_view::npos) return std::string("a tag is not closed with '>'");
        std::string_view tag = text.substr(at + 1, close - at - 1);
        if (tag.empty()) return std::string("an empty tag '<>'");
        if (std::isdigit(static_cast<unsigned char>(tag.front()))) continue;
        const bool closing = tag.front() == '/';
        if (closing) tag.remove_prefix(1);
        const std::size_t nameEnd = tag.find_first_of(". \t");
        const std::string name(tag.substr(0, nameEnd));
        if (name.empty()) return std::string("a tag without a name");
        if (!closing) {
            open.push_back(name);
        } else if (open.empty() || open.back() != name) {
            return "closing tag </" + name + "> does not match " +
                   (open.empty() ? std::string("an open tag") : "<" + open.back() + ">");
        } else {
            open.pop_back();
        }
    }
    if (!open.empty()) return "tag <" + open.back() + "> is not closed";
    return std::nullopt;
}

class Cutter {
public:
    Cutter(const std::string& fileName, CueFile& out) : m_file(fileName), m_out(out) {}

    void warn(std::size_t line, const std::string& what) {
        if (m_out.warnings.size() < kMaxWarnings)
            m_out.warnings.push_back(m_file + ":" + std::to_string(line) + ": " + what);
        else if (m_out.warnings.size() == kMaxWarnings)
            m_out.warnings.push_back(m_file + ": further warnings left out");
    }

    // One cue from its timing line and text lines, checked against the cue kept before it.
    void add(const Line& timing, char separator, bool hoursOptional, std::vector<Line> text, bool webVtt) {
        const std::size_t arrow = timing.text.find("-->");
        const std::string_view left = trim(timing.text.substr(0, arrow));
        std::string_view right = trim(timing.text.substr(arrow + 3));
        const std::size_t settingsAt = right.find_first_of(" \t");
        const std::string_view endText = right.substr(0, settingsAt);
        const std::string_view settings =
            settingsAt == std::string_view::npos ? std::string_view{} : trim(right.substr(settingsAt));
        const auto start = parseTime(left, separator, hoursOptional);
        const auto end = parseTime(endText, separator, hoursOptional);
        if (!start || !end || *start > kMaxTime || *end > kMaxTime)
            return warn(timing.number, "the cue times do not parse; the cue is skipped");
        if (*end <= *start) return warn(timing.number, "the cue ends before it starts; the cue is skipped");
        if (!m_out.cues.empty() && *start < m_out.cues.back().end)
            return warn(timing.number, m_out.cues.back().start > *start
                                           ? "the cue starts before the cue before it; the cue is skipped"
                                           : "the cue overlaps the cue before it; the cue is skipped");
        std::string cueText;
        for (const Line& line : text) {
            if (!cueText.empty() || &line != text.data()) cueText += '\n';
            cueText += line.text;
        }
        if (const auto problem = textProblem(cueText))
            return warn(timing.number, *problem + "; the cue is skipped");
        if (const auto problem = textProblem(settings); problem && webVtt)
            return warn(timing.number, "cue settings: " + *problem + "; the cue is skipped");
        m_out.cues.push_back({*start, *end, std::string(webVtt ? settings : std::string_view{}) + "\n" + cueText});
    }

private:
    const std::string& m_file;
    CueFile& m_out;
};

// The blocks of lines between blank lines.
std::vector<std::vector<Line>> blocks(const std::vector<Line>& lines) {
    std::vector<std::vector<Line>> result;
    std::vector<Line> current;
    for (const Line& line : lines) {
        if (blank(line.text)) {
            if (!current.empty()) result.push_back(std::move(current));
            current.clear();
        } else {
            current.push_back(line);
        }
    }
    if (!current.empty()) result.push_back(std::move(current));
    return result;
}

}  // namespace

CueFile cutWebVtt(std::string_view data, const std::string& fileName, FilePart part) {
    CueFile out;
    Cutter cutter(fileName, out);
    const bool continued = part.firstLine > 1;
    const std::vector<Line> lines = splitLines(data, part.firstLine);
    if (lines.empty()) {
        if (part.whole) cutter.warn(1, "the file is empty");
        return out;
    }
    const std::string_view first = lines.front().text;
    if (!continued && (!first.starts_with("WEBVTT") || (first.size() > 6 && first[6] != ' ' && first[6] != '\t'))) {
        cutter.warn(1, "not a WebVTT file: the first line is not 'WEBVTT'");
        return out;
    }
    bool header = !continued;
    for (const auto& block : blocks(lines)) {
        if (header) {  // the WEBVTT line and what follows it directly
            header = false;
            continue;
        }
        const std::string_view head = block.front().text;
        if (head.starts_with("NOTE") || head.starts_with("STYLE") || head.starts_with("REGION")) continue;
        // An identifier line may come before the timing line.
        std::size_t timing = head.find("-->") != std::string_view::npos ? 0 : 1;
        if (timing >= block.size() || block[timing].text.find("-->") == std::string_view::npos) {
            cutter.warn(block.front().number, "a block without a cue timing line; it is skipped");
            continue;
        }
        cutter.add(block[timing], '.', true, std::vector<Line>(block.begin() + static_cast<std::ptrdiff_t>(timing) + 1, block.end()),
                   true);
    }
    if (out.cues.empty() && part.whole) cutter.warn(lines.back().number, "no cue to package");
    return out;
}

CueFile cutSrt(std::string_view data, const std::string& fileName, FilePart part) {
    CueFile out;
    Cutter cutter(fileName, out);
    const std::vector<Line> lines = splitLines(data, part.firstLine);
    if (lines.empty()) {
        if (part.whole) cutter.warn(1, "the file is empty");
        return out;
    }
    for (const auto& block : blocks(lines)) {
        // The counter line is optional; the timing line uses a comma (some tools write a dot).
        const std::size_t timing = block.front().text.find("-->") != std::string_view::npos ? 0 : 1;
        if (timing >= block.size() || block[timing].text.find("-->") == std::string_view::npos) {
            cutter.warn(block.front().number, "a block without a subtitle timing line; it is skipped");
            continue;
        }
        const std::string_view times = block[timing].text;
        const char separator = times.find(',') != std::string_view::npos ? ',' : '.';
        cutter.add(block[timing], separator, false,
                   std::vector<Line>(block.begin() + static_cast<std::ptrdiff_t>(timing) + 1, block.end()), false);
    }
    if (out.cues.empty() && part.whole) cutter.warn(lines.back().number, "no subtitle to package");
    return out;
}

const char* const kEmptyTtmlDocument = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                       "<tt xmlns=\"http://www.w3.org/ns/ttml\"><body/></tt>\n";

namespace {

using tinyxml2::XMLElement;
using tvrn::encoding::packaging::imff::fmp4::formatTtmlTime;
using tvrn::encoding::packaging::imff::fmp4::parseTtmlTime;

double rateOf(const XMLElement* root, const char* name, double otherwise) {
    const char* text = root->Attribute(name);
    if (text == nullptr) return otherwise;
    const double value = std::strtod(text, nullptr);
    return value > 0 && value < 1e6 ? value : otherwise;
}

void copyAttributes(const XMLElement& from, XMLElement& to, bool withTimes) {
    for (const tinyxml2::XMLAttribute* a = from.FirstAttribute(); a != nullptr; a = a->Next()) {
        const std::string_view name = a->Name();
        if (!withTimes && (name == "begin" || name == "end" || name == "dur")) continue;
        to.SetAttribute(a->Name(), a->Value());
    }
}

}  // namespace

CueFile cutTtml(std::string_view data, const std::string& fileName) {
    CueFile out;
    Cutter cutter(fileName, out);
    if (data.find_first_not_of(" \t\r\n") == std::string_view::npos) {
        cutter.warn(1, "the file is empty");
        return out;
    }
    tinyxml2::XMLDocument source;
    if (source.Parse(data.data(), data.size()) != tinyxml2::XML_SUCCESS) {
        cutter.warn(static_cast<std::size_t>(std::max(source.ErrorLineNum(), 1)),
                    std::string("not well-formed XML (") + source.ErrorName() + "); the file gives no cue");
        return out;
    }
    const XMLElement* root = source.RootElement();
    if (root == nullptr || std::string_view(root->Name()) != "tt") {
        cutter.warn(1, "not a TTML document: the root element is not 'tt'");
        return out;
    }
    if (const char* base = root->Attribute("ttp:timeBase"); base && std::string_view(base) != "media")
        cutter.warn(static_cast<std::size_t>(root->GetLineNum()), std::string("time base '") + base + "' is read as media time");
    const double frameRate = rateOf(root, "ttp:frameRate", 30);
    const double tickRate = rateOf(root, "ttp:tickRate", 1);
    const auto timeOf = [&](const XMLElement& element, const char* name) -> std::optional<std::int64_t> {
        const char* text = element.Attribute(name);
        return text ? parseTtmlTime(text, frameRate, tickRate) : std::nullopt;
    };
    const XMLElement* head = root->FirstChildElement("head");
    const XMLElement* body = root->FirstChildElement("body");
    const std::int64_t bodyBegin = body ? timeOf(*body, "begin").value_or(0) : 0;
    for (const XMLElement* div = body ? body->FirstChildElement("div") : nullptr; div; div = div->NextSiblingElement("div")) {
        const std::int64_t divBegin = bodyBegin + timeOf(*div, "begin").value_or(0);
        for (const XMLElement* p = div->FirstChildElement("p"); p; p = p->NextSiblingElement("p")) {
            const auto line = static_cast<std::size_t>(p->GetLineNum());
            const auto begin = timeOf(*p, "begin");
            auto end = timeOf(*p, "end");
            if (const auto dur = timeOf(*p, "dur"); !end && begin && dur) end = *begin + *dur;
            if (!begin || !end) {
                cutter.warn(line, "a paragraph without begin and end (or dur) that parse; it is skipped");
                continue;
            }
            const std::int64_t start = divBegin + *begin;
            const std::int64_t stop = divBegin + *end;
            if (stop <= start) {
                cutter.warn(line, "the paragraph ends before it starts; it is skipped");
                continue;
            }
            if (!out.cues.empty() && start < out.cues.back().end) {
                cutter.warn(line, "the paragraph overlaps the one before it; it is skipped");
                continue;
            }
            // The document of this paragraph alone.
            tinyxml2::XMLDocument item;
            item.InsertEndChild(item.NewDeclaration());
            XMLElement* tt = item.NewElement("tt");
            item.InsertEndChild(tt);
            copyAttributes(*root, *tt, true);
            if (head) tt->InsertEndChild(head->DeepClone(&item));
            XMLElement* itemBody = tt->InsertNewChildElement("body");
            if (body) copyAttributes(*body, *itemBody, false);
            XMLElement* itemDiv = itemBody->InsertNewChildElement("div");
            copyAttributes(*div, *itemDiv, false);
            XMLElement* itemP = p->DeepClone(&item)->ToElement();
            itemP->DeleteAttribute("dur");
            itemP->SetAttribute("begin", formatTtmlTime(start).c_str());
            itemP->SetAttribute("end", formatTtmlTime(stop).c_str());
            itemDiv->InsertEndChild(itemP);
            tinyxml2::XMLPrinter printer(nullptr, true);
            item.Print(&printer);
            out.cues.push_back({start, stop, std::string(printer.CStr())});
        }
    }
    if (out.cues.empty()) cutter.warn(static_cast<std::size_t>(root->GetLineNum()), "no paragraph to package");
    return out;
}

std::vector<TextCue> withGaps(const std::vector<TextCue>& cues, std::int64_t from, std::int64_t maxGap) {
    std::vector<TextCue> items;
    std::int64_t at = from;
    const auto fill = [&](std::int64_t until) {
        while (at < until) {
            const std::int64_t end = maxGap > 0 ? std::min(until, at + maxGap) : until;
            items.push_back({at, end, {}});
            at = end;
        }
    };
    for (const TextCue& cue : cues) {
        fill(cue.start);
        items.push_back(cue);
        at = std::max(at, cue.end);
    }
    return items;
}

}  // namespace fmp4mux
