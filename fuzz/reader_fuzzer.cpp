// libFuzzer target: arbitrary bytes as a container file. Opens them with the
// reader, fetches every atom, and checks that the verifier agrees with the
// reader on whether the file opens. Crashes, hangs, leaks and sanitizer
// reports are the failures the fuzzer looks for.

#include <KEL/ContainerVerifier.h>
#include <KEL/KELLogger.h>
#include <KEL/ReadKEL2File.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const std::string& ScratchPath() {
    static const std::string path = "/tmp/kel-reader-fuzz-" + std::to_string(getpid()) + ".kel";
    return path;
}

bool WriteScratch(const std::uint8_t* data, std::size_t size) {
    std::FILE* f = std::fopen(ScratchPath().c_str(), "wb");
    if (f == nullptr) {
        return false;
    }
    const bool ok = size == 0 || std::fwrite(data, 1, size, f) == size;
    return std::fclose(f) == 0 && ok;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KEL::SetKELLoggerInstance(nullptr);  // keep the output to findings
    std::atexit([] { ::unlink(ScratchPath().c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!WriteScratch(data, size)) {
        return 0;
    }
    KEL::ReadKEL2File reader(ScratchPath().c_str());
    const KEL::KelErrorCode code = reader.Initialize();
    if (code == KEL::KEL_OK) {
        for (int s = 0; s < reader.GetNumStreams(); ++s) {
            const std::uint16_t stream = reader.GetStreamId(s);
            for (std::uint32_t frame : reader.GetFrameNumbers(stream)) {
                if (auto atom = reader.GetFrameAtom(stream, frame)) {
                    if (atom->GetStreamId() != stream || atom->GetFrameNr() != frame) {
                        __builtin_trap();
                    }
                    (void)atom->PayloadSize();
                }
            }
            (void)reader.GetFirstFrameAtom(stream);
        }
    }
    const KEL::ContainerVerification v = KEL::VerifyContainer(ScratchPath());
    if (v.openResult != code) {
        std::fprintf(stderr, "reader says %u, verifier says %u (%s)\n", code, v.openResult, v.openError.c_str());
        __builtin_trap();
    }
    return 0;
}
