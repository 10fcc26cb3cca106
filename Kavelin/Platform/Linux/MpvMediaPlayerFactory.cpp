#include "Kavelin/Platform/Linux/MpvMediaPlayerFactory.h"

namespace kavelin {

MpvMediaPlayerFactory::MpvMediaPlayerFactory(std::shared_ptr<MainQueue> queue,
                                             MpvMediaPlayer::Options options)
    : queue_(std::move(queue)), options_(std::move(options)) {}

std::shared_ptr<MediaPlayer> MpvMediaPlayerFactory::makePlayer() {
    auto player = std::make_shared<MpvMediaPlayer>(queue_, options_);
    if (createdHook_)
        player->whenStarted([hook = createdHook_, weak = std::weak_ptr<MpvMediaPlayer>(player)] {
            if (auto p = weak.lock()) hook(*p);
        });
    return player;
}

void MpvMediaPlayerFactory::finishBackgroundWork() {
    MpvMediaPlayer::finishBackgroundWork();
}

void MpvMediaPlayerFactory::setPlayerCreatedHook(std::function<void(MpvMediaPlayer&)> hook) {
    createdHook_ = std::move(hook);
}

}  // namespace kavelin
