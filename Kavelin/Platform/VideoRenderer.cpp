#include "Kavelin/Platform/VideoRenderer.h"

namespace kavelin {

namespace {
// Never destroyed: tearing mpv down from a static destructor at exit is not safe.
std::shared_ptr<VideoRenderer>& installedRenderer() {
    static auto* renderer = new std::shared_ptr<VideoRenderer>();
    return *renderer;
}
}  // namespace

void VideoRenderer::install(std::shared_ptr<VideoRenderer> renderer) {
    installedRenderer() = std::move(renderer);
}
VideoRenderer* VideoRenderer::current() {
    return installedRenderer().get();
}

}  // namespace kavelin
