#include "packaging/fmp4/chunks/text_chunks.h"

#include <map>
#include <optional>
#include <set>
#include <tinyxml2.h>
#include <vector>

#include "packaging/fmp4/fmp4_mux/fmp4_sample.h"
#include "packaging/fmp4_types/ttml_time.h"
#include "support/text/fraction.h"

namespace tvrn::encoding::packaging::imff::fmp4 {
inline namespace v7_2 {

namespace {

std::vector<std::uint8_t> payloadOf(const Sample& sample) {
    std::vector<std::uint8_t> bytes(sample.getSize());
    sample.getData(bytes.data());
    return bytes;
}

bool hasTimes(const Sample& sample) {
    std::int64_t value = 0;
    std::uint64_t timescale = 0;
    return sample.getPts(value) && sample.getDuration(value) && sample.getTimescale(timescale);
}

}  // namespace

void foldRepeatedWebVttCues(StreamChunk& chunk) {
    std::vector<std::shared_ptr<ISyncSample>> kept;
    kept.reserve(chunk.samples.size());
    Sample* previous = nullptr;
    std::vector<std::uint8_t> previousPayload;
    for (auto& entry : chunk.samples) {
        const auto* wrapped = dynamic_cast<const Fmp4Sample*>(entry.get());
        Sample* sample = wrapped ? wrapped->sample().get() : nullptr;
        if (sample == nullptr || !hasTimes(*sample)) continue;
        std::vector<std::uint8_t> payload = payloadOf(*sample);
        if (previous != nullptr && payload == previousPayload) {
            previous->duration += sample->duration;
            previous->hasDuration = true;
            continue;
        }
        previous = sample;
        previousPayload = std::move(payload);
        kept.push_back(std::move(entry));
    }
    chunk.samples = std::move(kept);
}

namespace {

using tinyxml2::XMLElement;

constexpr const char* kTtmlNamespace = "http://www.w3.org/ns/ttml";
constexpr std::uint64_t kHundredNsPerSecond = 10000000;

double numberAttribute(const XMLElement* element, const char* name, double otherwise) {
    const char* text = element->Attribute(name);
    if (text == nullptr) return otherwise;
    const double value = std::strtod(text, nullptr);
    return value > 0 && value < 1e6 ? value : otherwise;
}

// A deep copy of `source` into `document`.
XMLElement* cloneInto(const XMLElement& source, tinyxml2::XMLDocument& document) {
    return source.DeepClone(&document)->ToElement();
}

struct Paragraph {
    XMLElement* element;  // in the merged document
    const XMLElement* division;  // its div in the source, or null
    std::int64_t begin;          // on the merged timeline
    std::int64_t end;
};

}  // namespace

void mergeTtmlChunk(StreamChunk& chunk, std::int64_t zero, const std::string& language, std::string& skipped) {
    if (chunk.samples.empty()) return;
    tinyxml2::XMLDocument merged;
    std::vector<std::unique_ptr<tinyxml2::XMLDocument>> sources;
    std::map<std::string, XMLElement*> styles;  // by xml:id, the first seen
    std::vector<XMLElement*> regions;
    std::set<std::string> regionIds;
    std::map<std::string, std::string> namespaces;
    std::vector<std::pair<const XMLElement*, std::vector<Paragraph>>> divisions;
    std::string previousText;
    std::optional<std::size_t> previousDivision;  // index of the last document's paragraphs
    std::string timeBase;
    std::vector<std::pair<std::string, std::string>> bodyAttributes;  // style and region of the first body
    std::shared_ptr<Sample> first;
    std::int64_t chunkEnd = 0;
    for (const auto& entry : chunk.samples) {
        const auto* wrapped = dynamic_cast<const Fmp4Sample*>(entry.get());
        if (wrapped == nullptr) continue;
        const std::shared_ptr<Sample>& sample = wrapped->sample();
        if (!first) first = sample;
        const std::int64_t start = wrapped->getTime();
        const std::int64_t end = start + std::max<std::int64_t>(wrapped->getDuration(), 0);
        chunkEnd = std::max(chunkEnd, end);
        std::vector<std::uint8_t> bytes = payloadOf(*sample);
        std::string text(bytes.begin(), bytes.end());
        // The same document again only lasts longer.
        if (previousDivision && text == previousText) {
            for (Paragraph& p : divisions[*previousDivision].second) p.end = std::max(p.end, end - zero);
            continue;
        }
        auto document = std::make_unique<tinyxml2::XMLDocument>();
        const XMLElement* root = nullptr;
        if (document->Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS ||
            (root = document->FirstChildElement("tt")) == nullptr) {
            skipped += (skipped.empty() ? "" : ", ") + formatTtmlTime(start - zero);
            continue;
        }
        previousText = std::move(text);
        for (const tinyxml2::XMLAttribute* a = root->FirstAttribute(); a != nullptr; a = a->Next()) {
            const std::string name = a->Name();
            if (name.starts_with("xmlns:")) namespaces.emplace(name, a->Value());
            if (name == "ttp:timeBase" && timeBase.empty()) timeBase = a->Value();
        }
        const double frameRate = numberAttribute(root, "ttp:frameRate", 30);
        const double tickRate = numberAttribute(root, "ttp:tickRate", 1);
        if (const XMLElement* head = root->FirstChildElement("head")) {
            if (const XMLElement* styling = head->FirstChildElement("styling"))
                for (const XMLElement* style = styling->FirstChildElement("style"); style; style = style->NextSiblingElement("style"))
                    if (const char* id = style->Attribute("xml:id"); id && !styles.count(id))
                        styles[id] = cloneInto(*style, merged);
            if (const XMLElement* layout = head->FirstChildElement("layout"))
                for (const XMLElement* region = layout->FirstChildElement("region"); region; region = region->NextSiblingElement("region"))
                    if (const char* id = region->Attribute("xml:id"); id && regionIds.insert(id).second)
                        regions.push_back(cloneInto(*region, merged));
        }
        // The document's own zero is its earliest paragraph: that instant is the sample's start.
        const XMLElement* body = root->FirstChildElement("body");
        if (body && bodyAttributes.empty())
            for (const tinyxml2::XMLAttribute* a = body->FirstAttribute(); a != nullptr; a = a->Next())
                if (std::string name = a->Name(); name != "begin" && name != "end" && name != "dur")
                    bodyAttributes.emplace_back(std::move(name), a->Value());
        std::vector<std::pair<const XMLElement*, const XMLElement*>> found;  // (div, p)
        for (const XMLElement* div = body ? body->FirstChildElement("div") : nullptr; div; div = div->NextSiblingElement("div"))
            for (const XMLElement* p = div->FirstChildElement("p"); p; p = p->NextSiblingElement("p")) found.emplace_back(div, p);
        std::optional<std::int64_t> earliest;
        for (const auto& [div, p] : found)
            if (const char* begin = p->Attribute("begin"))
                if (const auto t = parseTtmlTime(begin, frameRate, tickRate); t && (!earliest || *t < *earliest)) earliest = t;
        divisions.emplace_back(nullptr, std::vector<Paragraph>{});
        for (const auto& [div, p] : found) {
            // A time that is missing or does not parse is -1: the paragraph then takes its sample's.
            const auto timeOf = [&, paragraph = p](const char* name) -> std::int64_t {
                const char* value = paragraph->Attribute(name);
                return value ? parseTtmlTime(value, frameRate, tickRate).value_or(-1) : -1;
            };
            const std::int64_t begin = timeOf("begin");
            std::int64_t stop = timeOf("end");
            const std::int64_t duration = timeOf("dur");
            if (stop < 0 && begin >= 0 && duration >= 0) stop = begin + duration;
            const std::int64_t shift = start - zero - earliest.value_or(0);
            Paragraph paragraph{cloneInto(*p, merged), div, begin >= 0 ? begin + shift : start - zero,
                                stop >= 0 ? stop + shift : end - zero};
            divisions.back().first = div;
            divisions.back().second.push_back(paragraph);
        }
        previousDivision = divisions.size() - 1;
        sources.push_back(std::move(document));
    }
    if (!first) return;

    merged.InsertEndChild(merged.NewDeclaration("xml version=\"1.0\" encoding=\"UTF-8\""));
    XMLElement* tt = merged.NewElement("tt");
    merged.InsertEndChild(tt);
    tt->SetAttribute("xmlns", kTtmlNamespace);
    for (const auto& [name, value] : namespaces) tt->SetAttribute(name.c_str(), value.c_str());
    if (!namespaces.count("xmlns:tts")) tt->SetAttribute("xmlns:tts", "http://www.w3.org/ns/ttml#styling");
    if (!namespaces.count("xmlns:ttp")) tt->SetAttribute("xmlns:ttp", "http://www.w3.org/ns/ttml#parameter");
    tt->SetAttribute("xml:lang", language.c_str());
    tt->SetAttribute("ttp:timeBase", timeBase.empty() ? "media" : timeBase.c_str());
    XMLElement* head = tt->InsertNewChildElement("head");
    XMLElement* styling = head->InsertNewChildElement("styling");
    for (const auto& [id, style] : styles) styling->InsertEndChild(style);
    XMLElement* layout = head->InsertNewChildElement("layout");
    for (XMLElement* region : regions) layout->InsertEndChild(region);
    if (regions.empty()) {
        XMLElement* region = layout->InsertNewChildElement("region");
        region->SetAttribute("xml:id", "Region");
        region->SetAttribute("tts:origin", "10% 10%");
        region->SetAttribute("tts:extent", "80% 80%");
        region->SetAttribute("tts:displayAlign", "after");
    }
    XMLElement* body = tt->InsertNewChildElement("body");
    for (const auto& [name, value] : bodyAttributes) body->SetAttribute(name.c_str(), value.c_str());
    int ordinal = 0;
    for (auto& [source, paragraphs] : divisions) {
        if (paragraphs.empty()) continue;
        XMLElement* div = body->InsertNewChildElement("div");
        for (const tinyxml2::XMLAttribute* a = source->FirstAttribute(); a != nullptr; a = a->Next()) {
            const std::string name = a->Name();
            if (name != "begin" && name != "end" && name != "dur") div->SetAttribute(a->Name(), a->Value());
        }
        for (Paragraph& p : paragraphs) {
            p.element->DeleteAttribute("dur");
            p.element->SetAttribute("begin", formatTtmlTime(p.begin).c_str());
            p.element->SetAttribute("end", formatTtmlTime(std::max(p.end, p.begin)).c_str());
            p.element->SetAttribute("xml:id", ("sub_" + std::to_string(++ordinal)).c_str());
            div->InsertEndChild(p.element);
        }
    }
    tinyxml2::XMLPrinter printer;
    merged.Print(&printer);
    const std::string text(printer.CStr(), printer.CStrSize() > 0 ? static_cast<std::size_t>(printer.CStrSize() - 1) : 0u);

    // One sample for the chunk, at the first document's time, lasting to the last one's end.
    auto sample = std::make_shared<Sample>();
    sample->streamId = first->streamId;
    sample->kind = first->kind;
    sample->inputType = first->inputType;
    sample->hasTimescale = sample->hasPts = sample->hasDts = sample->hasDuration = sample->sync = true;
    sample->timescale = first->timescale;
    sample->pts = sample->dts = first->pts;
    const std::int64_t firstStart = chunkStartTime(chunk, kHundredNsPerSecond);
    sample->duration = rescale(std::max<std::int64_t>(chunkEnd - firstStart, 0), kHundredNsPerSecond, first->timescale);
    auto nal = std::make_unique<lib_parse_es::NAL>(-1, static_cast<std::int32_t>(text.size()));
    nal->append(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
    sample->addNal(std::move(nal));
    chunk.samples.clear();
    chunk.samples.push_back(std::make_shared<Fmp4Sample>(std::move(sample)));
}

}  // namespace v7_2
}  // namespace tvrn::encoding::packaging::imff::fmp4
