#pragma once

#include <filesystem>
#include <string>

namespace kavelin::test {

// Media made with the ffmpeg command-line tool the first time a test asks for it,
// in a temporary directory that lives until the test process exits. Nothing binary
// is kept in the repository.
class TestMedia {
  public:
    // Generates everything once per process; throws when ffmpeg fails.
    static const TestMedia& shared();

    // The directory holding the files below, for a LocalHttpServer root.
    const std::filesystem::path& directory() const { return dir_; }

    // Short H.264/AAC clips in MP4 with a key frame every half second:
    // "clip2s.mp4" (2 s), "clip3s.mp4" (3 s), "clip2s-b.mp4" (2 s, other picture).
    static constexpr const char* kClip2s = "/clip2s.mp4";
    static constexpr const char* kClip3s = "/clip3s.mp4";
    static constexpr const char* kClip2sOther = "/clip2s-b.mp4";
    static constexpr double kClip2sDuration = 2.0;
    static constexpr double kClip3sDuration = 3.0;

    // An HLS stream of 4 one-second segments ("hls/index.m3u8"), video only.
    static constexpr const char* kHls = "/hls/index.m3u8";
    static constexpr double kHlsDuration = 4.0;

    // Encodes one video-only H.264 clip from a libavfilter source such as
    // "color=c=red:size=640x360:rate=25:duration=30"; throws when ffmpeg fails.
    static void makeVideoClip(const std::filesystem::path& out, const std::string& source);

  private:
    TestMedia();
    std::filesystem::path dir_;
};

}  // namespace kavelin::test
