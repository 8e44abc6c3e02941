// Creates the filter through the installed headers and libraries, configures a session and reads its status.
#include <cstdio>

#include "filter/mux_fmp4_filter/mux_fmp4_filter.h"
#include "packaging/fmp4_types/stream_type.h"

int main() {
    namespace flt = tvrn::encoding::filter;
    flt::IMuxFmp4Config* config = flt::CreateMuxFmp4Filter();
    if (config == nullptr) return 1;
    const bool ok = config->GetVersion() == 1 &&
                    config->SetMuxMode("consumer", 1, 0, 2000, 1, 2000, 500, false, 0, false, false, true) == 0 &&
                    config->SetFirstNumber(7) == 0;
    config->Release();
    std::printf("consumer: filter version 1 configured: %s; H.264 is \"%s\"\n", ok ? "yes" : "no",
                tvrn::encoding::packaging::imff::fmp4::streamTypeText(2));
    return ok ? 0 : 1;
}
