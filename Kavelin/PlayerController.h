#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Kavelin/Model/AdSessionTracker.h"
#include "Kavelin/Model/Catalogue.h"
#include "Kavelin/Model/MidRollAdConfig.h"
#include "Kavelin/Model/MidRollCuePointState.h"
#include "Kavelin/Platform/MediaPlayer.h"
#include "Kavelin/Platform/Platform.h"
#include "Kavelin/Platform/Published.h"
#include "Kavelin/Platform/ScreenPresenter.h"
#include "Kavelin/Platform/WorkItem.h"
#include "Kavelin/Playlist/Controllers/PlaylistController.h"

namespace kavelin {

// The playback state machine: owns the media player, follows its clock and status,
// holds what the player screen shows, presents and dismisses that screen, advances
// through playlists and gates playback on the host's ads. Main queue only.
//
// Its operations are split by concern: PlayerController.cpp (player core),
// PlayerControllerPresentation.cpp (controls and screen), PlayerControllerAdvancing.cpp
// (advancing and ad gating).
class PlayerController : public ObservableObject,
                         public std::enable_shared_from_this<PlayerController> {
  public:
    // Always made shared: delayed tasks and observers hold it weakly.
    static std::shared_ptr<PlayerController> make(const Platform& platform = Platform::current());
    ~PlayerController() override;

    // --- published state ---
    Published<std::shared_ptr<MediaPlayer>> player{this, nullptr};
    Published<bool> isPlaying{this, false};
    Published<double> currentTime{this, 0};
    Published<double> duration{this, 0};
    Published<bool> showForwardButton{this, false};
    Published<bool> showBackwordButton{this, false};
    Published<bool> showBack10Button{this, true};
    Published<bool> showFor10Button{this, true};
    Published<bool> showPlayPauseButton{this, true};
    Published<bool> showBackButton{this, true};
    Published<bool> showLogo{this, true};
    Published<bool> showSeekbar{this, true};
    Published<bool> showTimeDration{this, true};
    Published<bool> showLoading{this, true};
    Published<bool> disableBackButton{this, false};
    Published<bool> disbleForwardButton{this, false};
    Published<bool> showControls{this, true};
    Published<WorkItemPtr> hideControlsWorkItem{this, nullptr};
    Published<bool> showPlaylist{this, false};
    Published<bool> shouldWaitForAd{this, false};
    Published<int> currentIndex{this, 0};
    Published<bool> isScrubbing{this, false};
    // The current item cannot play (it failed, or made no progress for
    // `noProgressTimeout`): the screen says so and leaves on its own after
    // `leaveAfterFailureDelay` unless the viewer goes back or retries first.
    Published<bool> playbackFailed{this, false};

    // --- plain state ---
    bool shouldBePlayingAfterResume = false;
    std::optional<Video> pendingVideo;
    std::optional<int> pendingNextIndex;
    MidRollAdConfig midRollConfig = MidRollAdConfig::empty();
    MidRollCuePointState midRollCuePointState;
    std::optional<double> midRollResumePosition;
    WorkItemPtr midRollFallbackWorkItem;
    std::weak_ptr<AdSessionTracker> adSessionTracker;
    std::weak_ptr<PlaylistController> playlistController;
    std::vector<std::string> urls;
    MediaPlayer::ObserverId timeObserverToken = 0;
    MediaPlayer::ObserverId durationObservation = 0;
    MediaPlayer::ObserverId statusObservation = 0;
    bool isObservingTimeControlStatus = false;
    MediaPlayer::ObserverId endOfItemObservation = 0;
    std::shared_ptr<HostingController> hostingController;
    WorkItemPtr halfScreenAutoReturnWorkItem;
    bool hasShownInitialHalfScreen = false;
    bool dismissedCountdownRail = false;
    bool wasPlayingBeforeScrub = false;
    MediaPlayer::ObserverId failureObservation = 0;
    WorkItemPtr noProgressWorkItem;
    WorkItemPtr leaveAfterFailureWorkItem;
    double noProgressTimeout = 15.0;
    double leaveAfterFailureDelay = 8.0;

    // --- player core ---
    void setURLS(std::vector<std::string> urls);
    const std::vector<std::string>& getURLs() const { return urls; }
    void attachPlaylist(const std::shared_ptr<PlaylistController>& playlist);
    std::string currentVideoID() const;
    void loadVideo(const std::string& urlString);
    void play();
    void pause();
    void stop();
    void seekForward(double seconds);
    void seekBackward(double seconds);
    void seekTo(double value);
    // The seek bar's drag: playback holds while the thumb moves and resumes, at the
    // dropped position, only if it was playing before.
    void beginScrub();
    void endScrub();
    void showLoadingUI(bool show);
    void addPeriodicTimeObserver();
    void observeDuration();
    static std::string formatTime(double seconds);
    void cleanup();
    void playerDidFinishPlaying();
    // Shows the failure and arms the way out; once per item.
    void playbackDidFail(const std::string& reason);

    // --- controls and presentation ---
    void toggleControls();
    void autoHideControls();
    void cancelAutoHide();
    void startAutoHideTimer();
    void scheduleHalfScreenAutoReturn();
    void markCountdownRailDismissed();
    void clearCountdownRailDismissal();
    void presentVideoPlayer();
    void switchScreenBack_and_forth();
    void backToHome();

    // --- advancing and ad gating ---
    void playNextVideo(int index);
    void playNext(int index) { playNextVideo(index); }
    void playNextPlaylist();
    void nextVideo();
    void prevVideo();
    void playApprovedVideo();
    void onVideoSelected(const Video& video);
    void onPlaylistSelected(const Playlist& playlist);
    void triggerMidRollAd(double cue);
    void resumeAfterMidRollAd();
    // The host's ad-finished signal, after the tracker has counted the ad. A host
    // may answer inside the request's callback, before the screen has closed; the
    // resume then waits for the close, or the late teardown would undo it.
    void adCompleted();
    // The host's own override of the ad gate for the next advance.
    void setAdRequired(bool required);
    bool isClosingForAd() const { return adClosingSteps_ > 0; }
    // Moves to `index` and loads `urlString`, unless loadVideo would refuse the
    // address: then only the refusal is logged and the position does not move.
    bool moveAndLoad(int index, const std::string& urlString);

    const Platform& platform() const { return platform_; }

  private:
    explicit PlayerController(Platform platform);
    void onClockTick(double t);
    void onStatusChange(TimeControlStatus oldStatus, TimeControlStatus newStatus);
    bool adAllowedByTracker() const;
    // Moves to `index` and loads urls[index]; an index outside the list or a refused
    // address is logged and leaves the position where it was.
    bool loadURLAt(int index, std::string_view caller);
    // The address an advance from the current video would load (playNextVideo,
    // or playNextPlaylist at the end), for the player to open ahead.
    std::optional<std::string> upcomingAddress() const;
    void armNoProgressWatch();
    void cancelFailureTimers();

    void resumeAfterAdCompleted();
    void adClosingStepDone();

    Platform platform_;
    // Teardown and dismissal steps of the ad close still to come, and whether an
    // early acknowledgement waits for them.
    int adClosingSteps_ = 0;
    bool resumeWhenClosed_ = false;
    // Nesting depth of loadVideo: play() inside a load must not start another load.
    int loadDepth_ = 0;
    // Bumped by cleanup() so callbacks hopping onto the queue for an earlier item
    // are dropped.
    uint64_t itemGeneration_ = 0;
    // The address last loaded, which a retry after a failure loads again.
    std::string loadedURL_;
};

}  // namespace kavelin
