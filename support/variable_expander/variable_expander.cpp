#include "support/variable_expander/variable_expander.h"

#include <cstdio>

namespace tvrn::encoding::variable_expander {

namespace {
std::string format(const char* pattern, char c) {
    char text[160];
    std::snprintf(text, sizeof text, pattern, c, c);
    return text;
}
bool contains(const std::string& text, const char* needle) { return text.find(needle) != std::string::npos; }
}  // namespace

void MapVariables::add(const std::string& name, const std::string& value, bool required) {
    m_values[name] = value;
    if (required) m_required.insert(name);
}

std::string MapVariables::expand(const std::string& name) const {
    const auto it = m_values.find(name);
    if (it != m_values.end()) return it->second;
    std::string message = "unknown variable ${" + name + "} (available:";
    for (const auto& [known, value] : m_values) message += " " + known;
    message += ")";
    throw ExpandVariableException(message);
}

MosaicVariables::MosaicVariables(int feedIndex, const std::string& serviceName, const std::string& customName) {
    m_map.add("feedIndex", feedIndex >= 0 ? std::to_string(feedIndex) : "N/A");
    m_map.add("serviceName", serviceName.empty() ? "N/A" : serviceName);
    m_map.add("customName", customName.empty() ? "N/A" : customName);
}

const char* variableName(VariableId id) {
    static constexpr const char* kNames[] = {
        "channelName", "channelId", "outputId", "sessionId", "base", "profileId", "rollover", "random", "chunkId",
        "chunkDateTime", "ext", "chunkUnixDateTime", "time", "chunkYear", "chunkMonth", "chunkDay", "chunkHour",
        "chunkMinute", "chunkSecond", "chunkMillisecond", "bitrate", "audioId", "videoId", "textId", "combinationId",
        "customName", "adaptationSetId", "representationId", "dateTime", "number", "adCueId", "localWebServerRoot",
        "keyId",
    };
    static_assert(sizeof kNames / sizeof kNames[0] == 33);
    return kNames[static_cast<int>(id)];
}

std::string expand(const std::string& text, const IVariables& variables) {
    enum class State { Text, Escape, Dollar, Name } state = State::Text;
    std::string out;
    std::string name;
    std::set<std::string> seen;
    for (const char c : text) {
        switch (state) {
            case State::Text:
                if (c == '\\')
                    state = State::Escape;
                else if (c == '$')
                    state = State::Dollar;
                else if (c == '{' || c == '}')
                    throw ExpandVariableException(format("unexpected character %c; you might want \\%c instead.", c));
                else
                    out.push_back(c);
                break;
            case State::Escape:
                switch (c) {
                    case '\\':
                    case '$':
                    case '{':
                    case '}': out.push_back(c); break;
                    case 'n': out.push_back('\n'); break;
                    case 'r': out.push_back('\r'); break;
                    case 't': out.push_back('\t'); break;
                    default: throw ExpandVariableException(format("unknown escape sequence \\%c.", c));
                }
                state = State::Text;
                break;
            case State::Dollar:
                if (c != '{')
                    throw ExpandVariableException("expecting opening brace { after $; you might want \\$ instead.");
                name.clear();
                state = State::Name;
                break;
            case State::Name:
                if (c == '}') {
                    out += variables.expand(name);
                    seen.insert(name);
                    state = State::Text;
                } else if (c == '{' || c == '$' || c == '\\') {
                    throw ExpandVariableException(format("special character %c is forbidden in variable names.", c));
                } else {
                    name.push_back(c);
                }
                break;
        }
    }
    switch (state) {
        case State::Escape:
            throw ExpandVariableException("unfinished escape sequence (available: \\\\ \\$ \\{ \\} \\t \\n \\r).");
        case State::Dollar: throw ExpandVariableException("expecting opening brace { after $; you might want \\$ instead.");
        case State::Name: throw ExpandVariableException("unbalanced braces, you probably forgot a }.");
        case State::Text: break;
    }
    for (const auto& required : variables.getRequired())
        if (!seen.contains(required)) throw ExpandVariableException("${" + required + "} must appear at least once.");
    return out;
}

bool validateMediaTemplate(int mode, const std::string& text, std::string& error) {
    if (!contains(text, "${adaptationSetId}")) {
        error = "'${adaptationSetId}' is mandatory";
        return false;
    }
    if (mode == 1 || mode == 2) {
        if (!contains(text, "${representationId}")) {
            error = "'${representationId}' is mandatory";
            return false;
        }
        const bool time = contains(text, "${time}");
        const bool number = contains(text, "${number}");
        if (!time && !number) {
            error = "'${time}' or '${number}' is mandatory";
            return false;
        }
        if (time && number) {
            error = "'${time}' and '${number}' can not be used together";
            return false;
        }
        return true;
    }
    if (mode == 0) {
        if (!contains(text, "${bitrate}")) {
            error = "'${bitrate}' is mandatory";
            return false;
        }
        if (!contains(text, "${time}")) {
            error = "'${time}' is mandatory";
            return false;
        }
    }
    return true;
}

bool validateInitTemplate(int mode, bool hbbtv, const std::string& text, std::string& error) {
    if (!contains(text, "${adaptationSetId}")) {
        error = "'${adaptationSetId}' is mandatory";
        return false;
    }
    if (mode == 1 || mode == 2) {
        const bool representation = contains(text, "${representationId}");
        if (hbbtv && representation) {
            error = "HbbTv 1.5 compatibility : '${representationId}' is forbidden";
            return false;
        }
        if (!hbbtv && !representation) {
            error = "'${representationId}' is mandatory";
            return false;
        }
        return true;
    }
    if (mode == 0 && !contains(text, "${bitrate}")) {
        error = "'${bitrate}' is mandatory";
        return false;
    }
    return true;
}

bool translateTemplate(const std::string& text, std::string& result, const std::string& sessionId,
                       std::int64_t adaptationSetId, const std::string& ext, std::string& error, std::int64_t time,
                       std::int64_t number, const std::string& representationId) {
    fmp4_common::DashVariables variables;
    variables.set(AdaptationSetId, adaptationSetId >= 0 ? std::to_string(adaptationSetId) : "$AdapatationSet$");
    variables.set(RepresentationId, !representationId.empty() ? representationId : "$RepresentationID$");
    char value[32];
    std::snprintf(value, sizeof value, "%lld", static_cast<long long>(time));
    variables.set(Time, time >= 0 ? value : "$Time$");
    std::snprintf(value, sizeof value, "%lld", static_cast<long long>(number));
    variables.set(Number, number >= 0 ? value : "$Number$");
    variables.set(SessionId, sessionId);
    variables.set(Ext, ext);
    try {
        result = expand(text, variables);
        return true;
    } catch (const ExpandVariableException& e) {
        error = e.what();
        return false;
    }
}

}  // namespace tvrn::encoding::variable_expander
