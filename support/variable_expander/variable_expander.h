#pragma once
// Chunk names from operator templates such as "${sessionId}/${adaptationSetId}/chunk_${time}.mp4": expansion
// with strict syntax and messages that say what is wrong, validation per output mode, and translation into a
// DASH SegmentTemplate text.
#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::variable_expander {

class ExpandVariable;
using ExpandVariableException = cpp_utils::exception_utils::ExceptionTemplate<ExpandVariable>;

class IVariables {
public:
    // The value of a variable; an unknown name raises ExpandVariableException.
    virtual std::string expand(const std::string& name) const = 0;
    // The names that must appear in a template.
    virtual std::set<std::string> getRequired() const = 0;
    virtual ~IVariables() = default;
};

class MapVariables : public IVariables {
public:
    MapVariables() = default;
    MapVariables(const MapVariables&) = delete;
    MapVariables& operator=(const MapVariables&) = delete;

    void add(const std::string& name, const std::string& value, bool required = false);
    // Unknown: "unknown variable ${name} (available: a b c)".
    std::string expand(const std::string& name) const override;
    std::set<std::string> getRequired() const override { return m_required; }

private:
    std::map<std::string, std::string> m_values;
    std::set<std::string> m_required;
};

// The variables of a mosaic feed: feedIndex, serviceName and customName; "N/A" where not known.
class MosaicVariables : public IVariables {
public:
    MosaicVariables(int feedIndex, const std::string& serviceName, const std::string& customName);
    std::string expand(const std::string& name) const override { return m_map.expand(name); }
    std::set<std::string> getRequired() const override { return m_map.getRequired(); }

private:
    MapVariables m_map;
};

// The identifiers of the chunk-naming variables, with the names used in templates.
enum VariableId : int {
    ChannelName = 0, ChannelId, OutputId, SessionId, Base, ProfileId, Rollover, Random, ChunkId, ChunkDateTime, Ext,
    ChunkUnixDateTime, Time, ChunkYear, ChunkMonth, ChunkDay, ChunkHour, ChunkMinute, ChunkSecond, ChunkMillisecond,
    Bitrate, AudioId, VideoId, TextId, CombinationId, CustomName, AdaptationSetId, RepresentationId, DateTime, Number,
    AdCueId, LocalWebServerRoot, KeyId,
};
const char* variableName(VariableId id);

// The template language's escapes and "${name}" forms, expanded against `variables`.
std::string expand(const std::string& text, const IVariables& variables);

// Mode 0 Smooth Streaming, 1 and 2 the DASH forms. False with the reason in `error`.
bool validateMediaTemplate(int mode, const std::string& text, std::string& error);
bool validateInitTemplate(int mode, bool hbbtv, const std::string& text, std::string& error);

// A template into a chunk name, or, where an argument is negative or empty, into a DASH SegmentTemplate text
// with $Time$, $Number$, $RepresentationID$. False with the reason in `error`.
bool translateTemplate(const std::string& text, std::string& result, const std::string& sessionId,
                       std::int64_t adaptationSetId, const std::string& ext, std::string& error, std::int64_t time,
                       std::int64_t number, const std::string& representationId);

// The default templates.
inline constexpr const char* kDefaultDashInitPerAdaptationSet = "${sessionId}/${adaptationSetId}/init.mp4";
inline constexpr const char* kDefaultDashInit = "${sessionId}/${adaptationSetId}/${representationId}/init.mp4";
inline constexpr const char* kDefaultSmoothInit = "${sessionId}/${adaptationSetId}/${bitrate}/smooth_init.mp4";
inline constexpr const char* kDefaultDashMedia =
    "${sessionId}/${adaptationSetId}/${representationId}/chunk_${time}.mp4";
inline constexpr const char* kDefaultSmoothMedia = "${sessionId}/${adaptationSetId}/${bitrate}/smooth_segment_${time}";

namespace fmp4_common {
// Variables filled by identifier; nothing is required.
class DashVariables : public IVariables {
public:
    void set(VariableId id, const std::string& value) { m_map.add(variableName(id), value); }
    std::string expand(const std::string& name) const override { return m_map.expand(name); }
    std::set<std::string> getRequired() const override { return {}; }

private:
    MapVariables m_map;
};
}  // namespace fmp4_common

}  // namespace tvrn::encoding::variable_expander
