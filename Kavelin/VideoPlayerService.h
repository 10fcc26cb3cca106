#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Kavelin/Model/AdSessionTracker.h"
#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/PlayerController.h"
#include "Kavelin/Playlist/Controllers/PlaylistController.h"

namespace kavelin {

// The facade behind the C entry points: ingests the catalogue and the policy,
// starts playlists and routes the host's ad outcomes. Main queue only.
class VideoPlayerService {
  public:
    explicit VideoPlayerService(const Platform& platform = Platform::current());

    const std::shared_ptr<AdSessionTracker> adSessionTracker;
    std::shared_ptr<PlayerController> playerController;
    std::shared_ptr<PlaylistController> playlistController;

    int currentIndex() const;

    void loadVideo(const std::string& urlString);
    void play();
    void pause();
    void stop();
    void seekForward(double seconds);
    void seekBackward(double seconds);
    void cleanup();
    void seekTo(double value);
    void setURLS(std::vector<std::string> urls);

    // Deferred onto the main queue; they reach whichever controller exists then.
    void setShowForwardButton(bool show);
    void setShowBackwordButton(bool show);
    void setShowBack10Button(bool show);
    void setShowFor10Button(bool show);
    void setShowPlayPauseButton(bool show);
    void setShowBackButton(bool show);
    void setShowLogo(bool show);
    void setShowSeekbar(bool show);
    void setShowTimeDuration(bool show);

    void setPlaylistsFromUnity(std::string_view jsonString);
    void setEpisodesFromUnity(std::string_view jsonString);
    std::vector<Playlist> getAllPlaylists() const;
    void playPlaylist(const std::string& playlistId);
    void setPremium(bool isPremium);
    void setMidRollAdConfig(std::string_view jsonString);
    void AdCompletedResumePlayback();

    std::vector<Playlist> mapToPlaylists(const std::vector<EpisodeResponse>& episodesResponse,
                                         const std::vector<PlaylistResponse>& playlistsResponse);

  private:
    void mergeIfReady();
    // A new controller that knows the service's ad session tracker.
    std::shared_ptr<PlayerController> makePlayerController() const;
    void setShownLater(PlayerController::Control control, bool shown);

    Platform platform_;
    std::vector<EpisodeResponse> episodesResponse_;
    std::vector<PlaylistResponse> playlistsResponse_;
};

}  // namespace kavelin
