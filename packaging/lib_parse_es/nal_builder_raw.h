#pragma once
// Every non-empty buffer is one unit of a stream type fixed at construction.
#include "packaging/lib_parse_es/nal_builder.h"

namespace tvrn::encoding::packaging::lib_parse_es {
inline namespace v2 {

class NALBuilderRaw : public NALBuilder {
public:
    explicit NALBuilderRaw(StreamType type) : m_type(type) {}
    void push(IMediaData* data) override;
    void flush() override { signalEnd(); }

private:
    StreamType m_type;
};

}  // namespace v2
}  // namespace tvrn::encoding::packaging::lib_parse_es
