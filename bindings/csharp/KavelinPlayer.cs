// The player for a C# game: typed catalogue, typed events on the game's thread.
//
// The library reports events on its own thread. The callback here only queues them;
// the game calls DispatchEvents() once per frame and its handlers run there. Set
// RaiseEventsImmediately to have them run on the library's thread instead (handlers
// may then call back into the player; they must not block for long).
//
// Call Shutdown() when the game quits: it ends the library's thread, without which a
// managed runtime may wait for that thread forever at exit. Any later call brings the
// player back with the same catalogue, tier, policy and flags. As a safety net the
// player also shuts down when the runtime raises ProcessExit or DomainUnload, but not
// every runtime does before it waits for threads.
using System;
using System.Collections.Generic;
using System.Globalization;
using System.Threading;
using AOT;

namespace Kavelin
{
    public delegate void VideoPlayHandler(bool fromPlayer);
    public delegate void VideoIndexHandler(int index);
    public delegate void SecondsHandler(double seconds);
    public delegate void CueHandler(double cueSeconds);
    public delegate void VideoIdHandler(string videoId);
    public delegate void ReasonHandler(string reason);
    public delegate void RawEventHandler(string method, string payload);

    public static class KavelinPlayer
    {
        // "CallBack_registered": a Register() call reached the library.
        public static event Action CallbackRegistered;
        // "OnVideoPlay": fromPlayer is true when the player started a video ("true"),
        // false for the echo of a Play() call ("Started").
        public static event VideoPlayHandler VideoPlay;
        public static event Action VideoPause;
        public static event Action VideoStop;
        public static event SecondsHandler VideoSeekForward;
        public static event SecondsHandler VideoSeekBackward;
        public static event SecondsHandler VideoSeekTo;
        // The zero-based position of the video in its playlist.
        public static event VideoIndexHandler VideoFinished;
        // The screen has closed; show an ad, then call AdCompleted().
        public static event VideoIndexHandler NextVideoAdRequired;
        public static event CueHandler MidRollAdRequired;
        // A free viewer picked this video; show an ad, then call AdCompleted().
        public static event VideoIdHandler VideoTileClicked;
        // "back" when the viewer left with the back control.
        public static event ReasonHandler VideoClosed;
        // "user_exit" or "ad_required".
        public static event ReasonHandler ViewDismissed;
        // Every event, known or not, raw, before its typed event.
        public static event RawEventHandler EventReceived;
        // A handler threw while RaiseEventsImmediately was set (it cannot unwind into
        // the library). Without a subscriber the exception is written to stderr.
        public static event Action<Exception> HandlerFailed;

        static readonly object Gate = new object();
        static readonly List<KeyValuePair<string, string>> Pending = new List<KeyValuePair<string, string>>();
        // The library keeps this pointer for the life of the process.
        static readonly KavelinNative.EventCallback Callback = OnNativeEvent;
        static volatile bool immediate;
        static int leavingHooked;

        // What the library keeps on its player and so loses with it on Shutdown().
        // The library may have outlived an earlier domain of this runtime (an editor's
        // script reload shuts it down), so the first call that needs a player makes one.
        static bool playerDropped = true;
        static string policyJson;
        static readonly bool?[] Flags = new bool?[9];
        static readonly Action<bool>[] FlagSetters = {
            KavelinNative.setShowForwardButton, KavelinNative.setShowBackwordButton,
            KavelinNative.setShowBack10Button, KavelinNative.setShowFor10Button,
            KavelinNative.setShowPlayPauseButton, KavelinNative.setShowBackButton,
            KavelinNative.setShowLogo, KavelinNative.setShowSeekbar, KavelinNative.setShowTimeDuration,
        };

        public static bool RaiseEventsImmediately
        {
            get { return immediate; }
            set { immediate = value; }
        }

        public static int PendingEventCount
        {
            get { lock (Gate) return Pending.Count; }
        }

        // Safe to call again, and after Shutdown(); answered by CallbackRegistered.
        public static void Register()
        {
            if (Interlocked.Exchange(ref leavingHooked, 1) == 0)
            {
                AppDomain.CurrentDomain.ProcessExit += OnRuntimeLeaving;
                AppDomain.CurrentDomain.DomainUnload += OnRuntimeLeaving;
            }
            KavelinNative.registerUnityCallback(Callback);
        }

        // Ends playback and the library's thread; returns once its queued work has run
        // (no event comes later), while the thread closes the window and ends.
        // Events already queued are still delivered by DispatchEvents().
        public static void Shutdown()
        {
            lock (Gate) playerDropped = true;
            KavelinNative.cleanup();
        }

        // The library must neither call into a runtime that is going away (an editor
        // reloading scripts) nor keep a thread that the runtime waits for.
        static void OnRuntimeLeaving(object sender, EventArgs e)
        {
            KavelinNative.registerUnityCallback(null);
            Shutdown();
        }

        // Raises the queued events on the calling thread, oldest first; returns how
        // many. Events raised by the handlers wait for the next call. If a handler
        // throws, the exception propagates and the remaining events stay queued.
        public static int DispatchEvents()
        {
            KeyValuePair<string, string>[] batch;
            lock (Gate)
            {
                if (Pending.Count == 0) return 0;
                batch = Pending.ToArray();
                Pending.Clear();
            }
            for (int i = 0; i < batch.Length; ++i)
            {
                try
                {
                    Raise(batch[i].Key, batch[i].Value);
                }
                catch
                {
                    var rest = new KeyValuePair<string, string>[batch.Length - i - 1];
                    Array.Copy(batch, i + 1, rest, 0, rest.Length);
                    lock (Gate) Pending.InsertRange(0, rest);
                    throw;
                }
            }
            return batch.Length;
        }

        public static void SetCatalogue(IEnumerable<KavelinPlaylist> playlists, IEnumerable<KavelinEpisodes> episodes)
        {
            SetPlaylists(playlists);
            SetEpisodes(episodes);
        }
        public static void SetPlaylists(IEnumerable<KavelinPlaylist> playlists) { SetPlaylists(KavelinJson.Playlists(playlists)); }
        public static void SetPlaylists(string json) { KavelinNative.SetPlaylists(json); }
        public static void SetEpisodes(IEnumerable<KavelinEpisodes> episodes) { SetEpisodes(KavelinJson.Episodes(episodes)); }
        public static void SetEpisodes(string json) { KavelinNative.SetEpisodes(json); }

        public static void PlayPlaylist(string playlistId)
        {
            EnsurePlayer();
            KavelinNative.PlayPlaylist(playlistId);
        }

        public static void SetPremium(bool isPremium) { KavelinNative.SetPremium(isPremium); }

        public static void SetAdRequired(bool required)
        {
            EnsurePlayer();
            KavelinNative.SetAdRequired(required);
        }

        // The mid-roll policy document; kept across Shutdown().
        public static void SetMidRollAdConfig(string json)
        {
            lock (Gate) policyJson = json;
            if (!EnsurePlayer()) KavelinNative.SetMidRollAdConfig(json);
        }

        // The ad the library asked for has ended; playback resumes. Any thread.
        public static void AdCompleted() { KavelinNative.AdCompletedResumePlayback(); }

        public static void LoadVideo(string url)
        {
            EnsurePlayer();
            KavelinNative.loadVideo(url);
        }

        public static void SetUrls(params string[] urls)
        {
            EnsurePlayer();
            KavelinNative.setURLS(urls);
        }

        public static void Play() { KavelinNative.play(); }
        public static void Pause() { KavelinNative.pause(); }
        public static void Stop() { KavelinNative.stop(); }
        public static void SeekForward(double seconds) { KavelinNative.seekForward(seconds); }
        public static void SeekBackward(double seconds) { KavelinNative.seekBackward(seconds); }
        public static void SeekTo(double seconds) { KavelinNative.seekTo(seconds); }

        public static void SetShowForwardButton(bool show) { SetFlag(0, show); }
        public static void SetShowBackwordButton(bool show) { SetFlag(1, show); }
        public static void SetShowBack10Button(bool show) { SetFlag(2, show); }
        public static void SetShowFor10Button(bool show) { SetFlag(3, show); }
        public static void SetShowPlayPauseButton(bool show) { SetFlag(4, show); }
        public static void SetShowBackButton(bool show) { SetFlag(5, show); }
        public static void SetShowLogo(bool show) { SetFlag(6, show); }
        public static void SetShowSeekbar(bool show) { SetFlag(7, show); }
        public static void SetShowTimeDuration(bool show) { SetFlag(8, show); }

        static void SetFlag(int flag, bool show)
        {
            lock (Gate) Flags[flag] = show;
            if (!EnsurePlayer()) FlagSetters[flag](show);
        }

        // After Shutdown() the library has no player until one is made: make it and
        // give it back what the game had set. True when it did.
        static bool EnsurePlayer()
        {
            string policy;
            bool?[] flags;
            lock (Gate)
            {
                if (!playerDropped) return false;
                playerDropped = false;
                policy = policyJson;
                flags = (bool?[])Flags.Clone();
            }
            KavelinNative.setURLS(new string[0]);
            if (policy != null) KavelinNative.SetMidRollAdConfig(policy);
            for (int i = 0; i < flags.Length; ++i)
                if (flags[i].HasValue) FlagSetters[i](flags[i].Value);
            return true;
        }

        // Runs on the library's thread. Nothing may unwind into native code.
        [MonoPInvokeCallback(typeof(KavelinNative.EventCallback))]
        internal static void OnNativeEvent(IntPtr message)
        {
            try
            {
                string text = KavelinNative.FromUtf8(message) ?? "";
                int colon = text.IndexOf(':');
                string method = colon < 0 ? text : text.Substring(0, colon);
                string payload = colon < 0 ? "" : text.Substring(colon + 1);
                if (immediate)
                    Raise(method, payload);
                else
                    lock (Gate) Pending.Add(new KeyValuePair<string, string>(method, payload));
            }
            catch (Exception e)
            {
                var failed = HandlerFailed;
                if (failed != null)
                {
                    try { failed(e); } catch { }
                }
                else
                {
                    Console.Error.WriteLine("Kavelin: an event handler threw: " + e);
                }
            }
        }

        static void Raise(string method, string payload)
        {
            var raw = EventReceived;
            if (raw != null) raw(method, payload);
            switch (method)
            {
                case "CallBack_registered": Fire(CallbackRegistered); break;
                case "OnVideoPlay":
                    var play = VideoPlay;
                    if (play != null && (payload == "true" || payload == "Started")) play(payload == "true");
                    break;
                case "OnVideoPause": Fire(VideoPause); break;
                case "OnVideoStop": Fire(VideoStop); break;
                case "OnVideoSeekForward": Seconds(VideoSeekForward, payload); break;
                case "OnVideoSeekBackward": Seconds(VideoSeekBackward, payload); break;
                case "OnVideoSeekTo": Seconds(VideoSeekTo, payload); break;
                case "OnVideoFinished": Index(VideoFinished, payload); break;
                case "OnNextVideoAdRequired": Index(NextVideoAdRequired, payload); break;
                case "OnMidRollAdRequired":
                    var cue = MidRollAdRequired;
                    double at;
                    if (cue != null && TryNumber(payload, out at)) cue(at);
                    break;
                case "OnVideoTileClicked":
                    var tile = VideoTileClicked;
                    if (tile != null) tile(payload);
                    break;
                case "OnVideoClosed":
                    var closed = VideoClosed;
                    if (closed != null) closed(payload);
                    break;
                case "OnViewDismissed":
                    var dismissed = ViewDismissed;
                    if (dismissed != null) dismissed(payload);
                    break;
            }
        }

        static void Fire(Action handler)
        {
            if (handler != null) handler();
        }

        static void Seconds(SecondsHandler handler, string payload)
        {
            double seconds;
            if (handler != null && TryNumber(payload, out seconds)) handler(seconds);
        }

        static void Index(VideoIndexHandler handler, string payload)
        {
            int index;
            if (handler != null && int.TryParse(payload, NumberStyles.Integer, CultureInfo.InvariantCulture, out index))
                handler(index);
        }

        // Payloads are written by C: a dot for decimals whatever the game's culture.
        static bool TryNumber(string payload, out double value)
        {
            return double.TryParse(payload, NumberStyles.Float, CultureInfo.InvariantCulture, out value);
        }
    }
}
