#pragma once
// ANSI/SCTE 35 splice_info_section(): the parse into a record in syntax order, the splice time a sample takes
// from it, and the section's text dump. Failures throw SCTE_35::Exception; fields past the end of the bytes read
// as zeros.
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "support/exceptions/corvane_exception.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {
namespace SCTE_35 {

struct ExceptionClass;
using Exception = tvrn::cpp_utils::exception_utils::ExceptionTemplate<ExceptionClass>;

struct SpliceTime {
    bool timeSpecifiedFlag = false;
    std::uint64_t ptsTime = 0;  // 33 bits
};

struct BreakDuration {
    bool autoReturn = false;
    std::uint64_t duration = 0;  // 33 bits
};

struct Component {
    std::uint8_t componentTag = 0;
    SpliceTime spliceTime;        // splice_insert(), when not immediate
    std::uint32_t utcSpliceTime = 0;  // splice_schedule()
};

// The fields splice_insert() and each event of splice_schedule() share.
struct SpliceEvent {
    std::uint32_t spliceEventId = 0;
    bool spliceEventCancelIndicator = false;
    bool outOfNetworkIndicator = false;
    bool programSpliceFlag = false;
    bool durationFlag = false;
    std::vector<Component> components;  // component_count of them, when not a program splice
    BreakDuration breakDuration;
    std::uint16_t uniqueProgramId = 0;
    std::uint8_t availNum = 0;
    std::uint8_t availsExpected = 0;
};

struct ScheduledEvent : SpliceEvent {
    std::uint32_t utcSpliceTime = 0;  // a program splice
};

struct SpliceSchedule {
    std::vector<ScheduledEvent> events;  // splice_count of them
};

struct SpliceInsert : SpliceEvent {
    bool spliceImmediateFlag = false;
    SpliceTime spliceTime;  // a program splice, when not immediate
};

struct TimeSignal {
    SpliceTime spliceTime;
};

struct OtherCommand {};

struct SpliceDescriptor {
    std::uint8_t spliceDescriptorTag = 0;
    std::uint8_t descriptorLength = 0;
    std::uint32_t identifier = 0;
    std::vector<std::uint8_t> privateBytes;
};

struct SpliceInfoSection {
    std::uint8_t tableId = 0;
    bool sectionSyntaxIndicator = false;
    bool privateIndicator = false;
    std::uint16_t sectionLength = 0;
    std::uint8_t protocolVersion = 0;
    bool encryptedPacket = false;
    std::uint8_t encryptionAlgorithm = 0;
    std::uint64_t ptsAdjustment = 0;  // 33 bits
    std::uint8_t cwIndex = 0;
    std::uint16_t tier = 0;
    std::uint16_t spliceCommandLength = 0;
    std::uint8_t spliceCommandType = 0;
    // By tag: 0 splice_schedule() (type 4), 1 splice_insert() (type 5), 2 time_signal() (type 6), 3 any other.
    std::variant<SpliceSchedule, SpliceInsert, TimeSignal, OtherCommand> command;
    std::uint16_t descriptorLoopLength = 0;
    std::vector<SpliceDescriptor> descriptors;
};

SpliceInfoSection parseSpliceInfoSection(const std::uint8_t* bytes, std::size_t size);

// The pts_time of the splice, before pts_adjustment, when the command gives one: a time_signal() with a time, or
// a program splice_insert() that is neither cancelled nor immediate. splice_schedule() and the other commands
// throw "Unmanaged command type".
std::optional<std::uint64_t> splicePtsTime(const SpliceInfoSection& section);

// The section as text, a field a line.
std::string dumpSpliceInfoSection(const SpliceInfoSection& section);

}  // namespace SCTE_35
}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
