#pragma once

#include <functional>
#include <memory>

#include "Kavelin/Platform/Linux/MpvMediaPlayer.h"
#include "Kavelin/Platform/MainQueue.h"
#include "Kavelin/Platform/MediaPlayer.h"

namespace kavelin {

// Makes libmpv players that report on `queue`.
class MpvMediaPlayerFactory final : public MediaPlayerFactory {
  public:
    explicit MpvMediaPlayerFactory(
        std::shared_ptr<MainQueue> queue,
        MpvMediaPlayer::Options options = MpvMediaPlayer::Options::fromEnvironment());

    std::shared_ptr<MediaPlayer> makePlayer() override;
    void finishBackgroundWork() override;

    // Called on the main queue with every new player once its mpv is up, before
    // its first item opens.
    void setPlayerCreatedHook(std::function<void(MpvMediaPlayer&)> hook);

    const MpvMediaPlayer::Options& options() const { return options_; }

  private:
    std::shared_ptr<MainQueue> queue_;
    MpvMediaPlayer::Options options_;
    std::function<void(MpvMediaPlayer&)> createdHook_;
};

}  // namespace kavelin
