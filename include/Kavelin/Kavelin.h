/*
 * Kavelin: an embeddable video-playlist player for children's games.
 *
 * The host drives the library only through these functions and hears back through
 * short named events (see kavelin_event_callback). Nothing happens at load time.
 *
 * Threading: every function may be called from any host thread; the call hops onto
 * the library's own main thread and runs there synchronously, so events raised by a
 * call are delivered before it returns. Events always arrive on the library's main
 * thread, even the echo of a call made on another thread. A host callback may call
 * back into the library from inside the callback (the call runs inline).
 *
 * Blocking: a call from a host thread waits while a callback runs. A callback that
 * waits for the game's thread while that thread is inside a Kavelin call therefore
 * deadlocks: a callback should queue the event and return. The window and its GL
 * contexts are opened on a thread of the library's own: no call waits for them.
 *
 * Strings are NUL-terminated UTF-8, copied before the call returns; the host keeps
 * ownership. A null string is treated as invalid input: it is logged and ignored.
 * The text handed to the callback is valid only during the callback.
 * No function reports failure: bad input is logged on standard output.
 *
 * Loading: open the library with dlopen(..., RTLD_NOW | RTLD_LOCAL). The exported
 * pause, play and stop would interpose libc's pause (and any other play/stop) for
 * the whole process under RTLD_GLOBAL or when linked directly into an executable
 * that also calls those names. Never dlclose it: the library stays mapped until
 * the process ends (it is built with -z nodelete); call cleanup() when leaving.
 */
#ifndef KAVELIN_KAVELIN_H
#define KAVELIN_KAVELIN_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KAVELIN_EXPORT __attribute__((visibility("default")))

/* 1.1 */
KAVELIN_EXPORT extern const double KavelinVersionNumber;
/* "@(#)PROGRAM:Kavelin  PROJECT:Kavelin-1.1.0\n" */
KAVELIN_EXPORT extern const unsigned char KavelinVersionString[];

/* Receives one event as "Method:payload"; the text is valid only during the call. */
typedef void (*kavelin_event_callback)(const char* message);

/* Registers (or with NULL clears) the event callback; answers "CallBack_registered:registered". */
KAVELIN_EXPORT void registerUnityCallback(kavelin_event_callback callback);

/* Loads and plays one address (any URI reference: a URL, or a path taken as written)
 * in the player; creates the service. Empty or control-character text is refused
 * with a warning. Any thread. */
KAVELIN_EXPORT void loadVideo(const char* urlString);
/* Starts or resumes playback; always echoes "OnVideoPlay:Started". Any thread. */
KAVELIN_EXPORT void play(void);
/* Pauses playback; always echoes "OnVideoPause:Paused". Any thread.
 * The exported symbol is "pause"; in C and C++ it is declared as kavelin_pause
 * because POSIX <unistd.h> already declares int pause(void). */
KAVELIN_EXPORT void kavelin_pause(void) __asm__("pause");
/* Pauses and rewinds to 0; always echoes "OnVideoStop:Stopped". Any thread. */
KAVELIN_EXPORT void stop(void);
/* Skips forward by `seconds`; always echoes "OnVideoSeekForward:<seconds>". Any thread. */
KAVELIN_EXPORT void seekForward(double seconds);
/* Skips back by `seconds` (not before 0); echoes "OnVideoSeekBackward:<seconds>". Any thread. */
KAVELIN_EXPORT void seekBackward(double seconds);
/* Seeks to `value` seconds; always echoes "OnVideoSeekTo:<value>". Any thread. */
KAVELIN_EXPORT void seekTo(double value);
/* Tears down playback and drops the player until setURLS makes a new one. Also ends
 * the library's main thread, so a managed runtime can exit: it returns once the
 * queued work has run (no event comes after it), while the thread writes pending
 * watched marks, closes the window and ends on its own. A host whose own SDL video
 * was up before the player's window opened is held until the window has closed, as
 * it may quit SDL next. The next call of any function starts a fresh thread (after
 * the old one has ended). From inside the event callback it returns at once and the
 * thread ends when the callback returns. */
KAVELIN_EXPORT void cleanup(void);
/* Replaces the play order with `count` addresses (NULL entries skipped); creates the
 * service. A negative count is logged as an error and ignored. */
KAVELIN_EXPORT void setURLS(const char** urls, int32_t count);

/* Presentation flags; each takes effect asynchronously on the library's main thread. */
KAVELIN_EXPORT void setShowForwardButton(bool show);   /* next-video button, default off */
KAVELIN_EXPORT void setShowBackwordButton(bool show);  /* previous-video button, default off */
KAVELIN_EXPORT void setShowBack10Button(bool show);    /* 10 s back, default on */
KAVELIN_EXPORT void setShowFor10Button(bool show);     /* 10 s forward, default on */
KAVELIN_EXPORT void setShowPlayPauseButton(bool show); /* play/pause, default on */
KAVELIN_EXPORT void setShowBackButton(bool show);      /* close button, default on */
KAVELIN_EXPORT void setShowLogo(bool show);            /* logo, default on */
KAVELIN_EXPORT void setShowSeekbar(bool show);         /* seek bar, default on */
KAVELIN_EXPORT void setShowTimeDuration(bool show);    /* elapsed/total time, default on */

/* Sends the playlist document (JSON array of {id,name,thumbnail}); creates the service. */
KAVELIN_EXPORT void SetPlaylists(const char* json);
/* Sends the episodes document (JSON array of {id,episodes:[...]}); creates the service. */
KAVELIN_EXPORT void SetEpisodes(const char* json);
/* Opens the player screen on the playlist with this id, at its first unwatched video. */
KAVELIN_EXPORT void PlayPlaylist(const char* playlistId);
/* Sets the viewer's tier: premium viewers never wait for ads; creates the service. */
KAVELIN_EXPORT void SetPremium(bool isPremium);
/* Blocks (true) or releases (false) playback until an ad is done; needs a player. */
KAVELIN_EXPORT void SetAdRequired(bool required);
/* Sends the mid-roll ad policy (JSON); creates the service. */
KAVELIN_EXPORT void SetMidRollAdConfig(const char* json);
/* Reports that the ad the library asked for has ended; playback resumes. May come at
 * any moment after the request, even from inside the event callback: playback then
 * resumes once the screen has closed ("OnViewDismissed:ad_required"). */
KAVELIN_EXPORT void AdCompletedResumePlayback(void);

#ifdef __cplusplus
}
#endif

#endif /* KAVELIN_KAVELIN_H */
