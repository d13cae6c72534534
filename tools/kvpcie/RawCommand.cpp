// kvpcie raw: what a raw recording holds, and any of its frames as a PNG.
#include "Commands.h"
#include "FrameOptions.h"
#include "PixelTypeNames.h"
#include "RawRecordingName.h"

#include <cstdio>
#include <fstream>

namespace kvpcie::cli {
namespace {

const char kHelp[] =
    "usage: kvpcie raw info FILE\n"
    "       kvpcie raw png FILE --frame N -o OUT.png\n"
    "A raw recording's geometry, pixel type and frame count come from its name\n"
    "(<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw) and its size. Y16 is shown stretched between\n"
    "the frame's own minimum and maximum.\n";

struct Recording {
    tools::RawRecordingInfo info;
    std::size_t frameBytes = 0;
    std::uint64_t frames = 0;
};

Recording Open(const std::string& path, std::ifstream& in) {
    const auto info = tools::ParseRawRecordingName(path);
    if (!info) {
        throw UsageError{"the name of " + path +
                         " does not say its frames (<n>_<W>x<H>_ParamLine<p>_Fps<r>_<TYPE>.raw)"};
    }
    RequireReadableFile(path);
    in.open(path, std::ios::binary | std::ios::ate);
    if (!in) {
        throw RuntimeError{"cannot read " + path};
    }
    const auto size = static_cast<std::uint64_t>(in.tellg());
    Recording recording{*info,
                        static_cast<std::size_t>(KvFrameSizeBytes(info->pixelType, info->width,
                                                                  info->height, info->paramLines)),
                        0};
    if (recording.frameBytes == 0 || size % recording.frameBytes != 0) {
        throw RuntimeError{path + ": " + std::to_string(size) +
                           " bytes are not a whole number of " +
                           std::to_string(recording.frameBytes) + "-byte frames"};
    }
    recording.frames = size / recording.frameBytes;
    return recording;
}

}  // namespace

int RunRaw(const std::vector<std::string>& args) {
    if (PrintHelpIfAsked(args, kHelp)) {
        return 0;
    }
    const Arguments arguments(args, {"--frame"});
    arguments.AllowOnly({"--frame", "-o"});
    const auto& words = arguments.Words();
    if (words.size() == 2 && words[0] == "info") {
        std::ifstream in;
        const Recording recording = Open(words[1], in);
        std::printf(
            "%s\n  %d x %d, %d parameter line(s), %s, %d fps\n  %llu frame(s) of %zu "
            "bytes\n",
            words[1].c_str(), recording.info.width, recording.info.height,
            recording.info.paramLines, tools::PixelTypeName(recording.info.pixelType),
            recording.info.frameRate, static_cast<unsigned long long>(recording.frames),
            recording.frameBytes);
        return 0;
    }
    if (words.size() == 2 && words[0] == "png") {
        const auto out = arguments.Value("-o");
        const auto frameText = arguments.Value("--frame");
        if (!out || !frameText) {
            throw UsageError{"raw png needs --frame N and -o OUT.png"};
        }
        std::ifstream in;
        const Recording recording = Open(words[1], in);
        const auto frame = ParseNumber(*frameText, "frame", 0, recording.frames - 1);
        std::vector<char> bytes(recording.frameBytes);
        in.seekg(static_cast<std::streamoff>(frame * recording.frameBytes));
        if (!in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()))) {
            throw RuntimeError{"cannot read frame " + *frameText + " of " + words[1]};
        }
        const FrameGeometry geometry{recording.info.width, recording.info.height,
                                     recording.info.pixelType};
        if (!SaveFramePng(*out, geometry, bytes.data())) {
            throw RuntimeError{"cannot write " + *out};
        }
        std::printf("frame %llu of %s written to %s\n", static_cast<unsigned long long>(frame),
                    words[1].c_str(), out->c_str());
        return 0;
    }
    throw UsageError{"expected \"info FILE\" or \"png FILE --frame N -o OUT.png\""};
}

}  // namespace kvpcie::cli
