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

    // Published state, read by the screen and the host; only the controller assigns it.
    template <typename T>
    using ReadOnly = Published<T, PlayerController>;

    ReadOnly<std::shared_ptr<MediaPlayer>> player{this, nullptr};
    ReadOnly<bool> isPlaying{this, false};
    ReadOnly<double> currentTime{this, 0};
    ReadOnly<double> duration{this, 0};
    ReadOnly<bool> showForwardButton{this, false};
    ReadOnly<bool> showBackwordButton{this, false};
    ReadOnly<bool> showBack10Button{this, true};
    ReadOnly<bool> showFor10Button{this, true};
    ReadOnly<bool> showPlayPauseButton{this, true};
    ReadOnly<bool> showBackButton{this, true};
    ReadOnly<bool> showLogo{this, true};
    ReadOnly<bool> showSeekbar{this, true};
    ReadOnly<bool> showTimeDration{this, true};
    ReadOnly<bool> showLoading{this, true};
    ReadOnly<bool> disableBackButton{this, false};
    ReadOnly<bool> disbleForwardButton{this, false};
    ReadOnly<bool> showControls{this, true};
    ReadOnly<WorkItemPtr> hideControlsWorkItem{this, nullptr};
    ReadOnly<bool> showPlaylist{this, false};
    ReadOnly<bool> shouldWaitForAd{this, false};
    ReadOnly<int> currentIndex{this, 0};
    ReadOnly<bool> isScrubbing{this, false};
    // The current item cannot play (it failed, or made no progress for
    // `noProgressTimeout()`): the screen says so and leaves on its own after
    // `leaveAfterFailureDelay()` unless the viewer goes back or retries first.
    ReadOnly<bool> playbackFailed{this, false};

    // --- what the host and the service set ---
    // The parts of the screen the host may hide or show.
    enum class Control {
        forwardButton,
        backwordButton,
        back10Button,
        for10Button,
        playPauseButton,
        backButton,
        logo,
        seekbar,
        timeDuration,
    };
    void setControlShown(Control control, bool shown);
    void setAdSessionTracker(std::weak_ptr<AdSessionTracker> tracker);
    void setMidRollConfig(MidRollAdConfig config);
    // A premium viewer has no breaks: the plan for the current item is dropped.
    void clearMidRollPlan();
    // Follows `playlists` from now on and starts `selected` in it.
    void playPlaylist(const std::shared_ptr<PlaylistController>& playlists,
                      const Playlist& selected);
    // How long a stalled item may make no progress, and how long a failure stays
    // on screen before leaving.
    void setFailureTimeouts(double noProgress, double leaveAfterFailure);

    // --- what the screen, the service and tests read ---
    bool shouldBePlayingAfterResume() const { return shouldBePlayingAfterResume_; }
    const std::shared_ptr<HostingController>& hostingController() const {
        return hostingController_;
    }
    std::shared_ptr<AdSessionTracker> adSessionTracker() const { return adSessionTracker_.lock(); }
    const MidRollAdConfig& midRollConfig() const { return midRollConfig_; }
    const MidRollCuePointState& midRollCuePointState() const { return midRollCuePointState_; }
    std::optional<double> midRollResumePosition() const { return midRollResumePosition_; }
    bool isCountdownRailDismissed() const { return dismissedCountdownRail_; }
    double noProgressTimeout() const { return noProgressTimeout_; }
    double leaveAfterFailureDelay() const { return leaveAfterFailureDelay_; }

    // --- player core ---
    void setURLS(std::vector<std::string> urls);
    const std::vector<std::string>& getURLs() const { return urls_; }
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
    // The thumb's position while dragging: shown at once, sought on endScrub.
    void scrubTo(double seconds);
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
    // A tap on the picture: brings the controls up and toggles the rail. Closing
    // the rail during the countdown keeps it away for the rest of that video.
    void tapOnVideo();
    // The last seconds of a video, when the rail counts down to the next one.
    static bool isCountdownPhase(double currentTime, double duration);
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
    ReadOnly<bool>* flagFor(Control control);
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
    bool shouldBePlayingAfterResume_ = false;
    std::optional<Video> pendingVideo_;
    std::optional<int> pendingNextIndex_;
    MidRollAdConfig midRollConfig_ = MidRollAdConfig::empty();
    MidRollCuePointState midRollCuePointState_;
    std::optional<double> midRollResumePosition_;
    WorkItemPtr midRollFallbackWorkItem_;
    std::weak_ptr<AdSessionTracker> adSessionTracker_;
    std::weak_ptr<PlaylistController> playlistController_;
    std::vector<std::string> urls_;
    MediaPlayer::ObserverId timeObserverToken_ = 0;
    MediaPlayer::ObserverId durationObservation_ = 0;
    MediaPlayer::ObserverId statusObservation_ = 0;
    bool isObservingTimeControlStatus_ = false;
    MediaPlayer::ObserverId endOfItemObservation_ = 0;
    std::shared_ptr<HostingController> hostingController_;
    WorkItemPtr halfScreenAutoReturnWorkItem_;
    bool hasShownInitialHalfScreen_ = false;
    bool dismissedCountdownRail_ = false;
    bool wasPlayingBeforeScrub_ = false;
    MediaPlayer::ObserverId failureObservation_ = 0;
    WorkItemPtr noProgressWorkItem_;
    WorkItemPtr leaveAfterFailureWorkItem_;
    double noProgressTimeout_ = 15.0;
    double leaveAfterFailureDelay_ = 8.0;
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
