#include "support/TestMedia.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace kavelin::test {
namespace {

std::filesystem::path gDirectory;

void removeDirectory() {
    std::error_code ec;
    if (!gDirectory.empty()) std::filesystem::remove_all(gDirectory, ec);
}

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0)
        throw std::runtime_error("test media generation failed: " + command);
}

std::string quoted(const std::filesystem::path& p) {
    std::string out = "'";
    out += p.string();
    out += '\'';
    return out;
}

// Key frames every 0.5 s keep exact seeks cheap; ultrafast keeps generation short.
const char* kVideoCodec = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 12 -keyint_min 12";

void makeClip(const std::filesystem::path& out, double seconds, const char* source) {
    const std::string d = std::to_string(seconds);
    run(std::string("ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i ") + source +
        "=duration=" + d + ":size=320x180:rate=25 -f lavfi -i sine=frequency=440:duration=" + d +
        " " + kVideoCodec + " -c:a aac -shortest -movflags +faststart " + quoted(out));
}

}  // namespace

const TestMedia& TestMedia::shared() {
    static const TestMedia media;
    return media;
}

TestMedia::TestMedia() {
    dir_ = std::filesystem::temp_directory_path() / ("kavelin-media-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir_ / "hls");
    gDirectory = dir_;
    std::atexit(removeDirectory);

    makeClip(dir_ / "clip2s.mp4", kClip2sDuration, "testsrc2");
    makeClip(dir_ / "clip3s.mp4", kClip3sDuration, "testsrc2");
    makeClip(dir_ / "clip2s-b.mp4", kClip2sDuration, "smptebars");
    run("ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i testsrc2=duration=" +
        std::to_string(kHlsDuration) + ":size=320x180:rate=25 " + kVideoCodec +
        " -force_key_frames 'expr:gte(t,n_forced*1)' -f hls -hls_time 1 -hls_list_size 0"
        " -hls_playlist_type vod -hls_segment_filename " +
        quoted(dir_ / "hls" / "seg%02d.ts") + " " + quoted(dir_ / "hls" / "index.m3u8"));
}

void TestMedia::makeVideoClip(const std::filesystem::path& out, const std::string& source) {
    run("ffmpeg -hide_banner -loglevel error -nostdin -y -f lavfi -i " + source + " " +
        kVideoCodec + " -movflags +faststart " + quoted(out));
}

}  // namespace kavelin::test
