// A console "game" on Mono that drives the library through the C# binding, one
// scenario per process: mono ManagedHost.exe SCENARIO MEDIA_BASE_URL [ARGS...]
// Exit code 0 and the line "ok" mean the scenario held; failures are printed. The
// time it leaves is printed too: the runtime must not wait for a library thread.
using System;
using System.Collections.Generic;
using System.Globalization;
using System.Runtime.InteropServices;
using System.Threading;
using Kavelin;

static class ManagedHost {
    static string media;                                    // "http://127.0.0.1:port"
    static readonly List<string> Log = new List<string>();  // typed events, in order
    static readonly List<string> Failures = new List<string>();
    static readonly int MainThread = Thread.CurrentThread.ManagedThreadId;
    static int handlerThread;

    static int Main(string[] args) {
        media = args[1];
        var scenarios = new Dictionary<string, Action<string[]>> {
            { "registration", Registration },
            { "non-ascii", NonAsciiCatalogue },
            { "free-ad", FreeViewerAdFromAnotherThread },
            { "gc-storm", EventsUnderGarbageCollection },
            { "reentrant", HandlersCallBackIn },
            { "exit", LeaveAfterCleanup },
            { "second-session", SecondSession },
        };
        Record();
        scenarios[args[0]](args);
        if (args[0] != "exit") KavelinPlayer.Shutdown();
        Console.WriteLine("leaving-at-ms=" + DateTimeOffset.UtcNow.ToUnixTimeMilliseconds());
        foreach (var f in Failures) Console.WriteLine("FAILED: " + f);
        Console.WriteLine(
            Failures.Count == 0 ? "ok" : "typed events: " + string.Join(", ", Log.ToArray()));
        if (args[args.Length - 1] == "environment-exit")
            Environment.Exit(Failures.Count == 0 ? 0 : 1);
        return Failures.Count == 0 ? 0 : 1;
    }

    static void Registration(string[] args) {
        KavelinPlayer.Register();
        KavelinPlayer.Register();  // twice is harmless
        Check(Log.Count == 0 && KavelinPlayer.PendingEventCount == 2,
              "both answers wait for the game thread");
        Check(KavelinPlayer.DispatchEvents() == 2, "both answers dispatched");
        Expect("CallbackRegistered", "CallbackRegistered");
        Check(handlerThread == MainThread, "handlers ran on the game thread");
    }

    static void NonAsciiCatalogue(string[] args) {
        // A culture with a decimal comma must not change what the payloads mean.
        Thread.CurrentThread.CurrentCulture = new CultureInfo("de-DE");
        const string id = "pl-Ä-🎈-中文";
        KavelinPlayer.SetPremium(true);
        var episodes = new[] { new KavelinEpisode("épisode-一", media + "/clip2s.mp4", "",
                                                  "Première 🎬 第一集", 1, 2),
                               new KavelinEpisode("épisode-二", media + "/clip2s-b.mp4", "",
                                                  "Deux \"quoted\" \\ ⭐", 1, 2) };
        KavelinPlayer.SetCatalogue(
            new[] { new KavelinPlaylist(id, "Lieder für Kinder 🎵 儿歌", media + "/none.png") },
            new[] { new KavelinEpisodes(id, episodes) });
        KavelinPlayer.Register();
        KavelinPlayer.PlayPlaylist(id);  // found only if the id arrived byte for byte
        Pump(() => Log.Count >= 4, 20);
        KavelinPlayer.SeekTo(7.25);
        Pump(() => Log.Count >= 5, 5);
        Expect("CallbackRegistered", "VideoPlay(True)", "VideoFinished(0)", "VideoPlay(True)",
               "VideoSeekTo(7.25)");

        // The way back: a tile id in UTF-8, as the library hands it over.
        FeedNative("OnVideoTileClicked:épisode-二🎈");
        FeedNative("OnVideoFinished:oops");  // unparsable: raw event only
        KavelinPlayer.DispatchEvents();
        Check(Last() == "VideoTileClicked(épisode-二🎈)", "tile id decoded: " + Last());
    }

    static void FreeViewerAdFromAnotherThread(string[] args) {
        int ackThread = MainThread;
        // The ad plays elsewhere; the game reports it done from there.
        ThreadStart acknowledge = () => {
            Thread.Sleep(300);
            ackThread = Thread.CurrentThread.ManagedThreadId;
            lock (Log) Log.Add("ack");
            KavelinPlayer.AdCompleted();
        };
        KavelinPlayer.ViewDismissed += reason => {
            if (reason == "ad_required") new Thread(acknowledge).Start();
        };
        KavelinPlayer.Register();
        KavelinPlayer.SetPremium(false);
        Catalogue("pl-ad", new KavelinEpisode("a1", media + "/clip2s.mp4", "", "One"),
                  new KavelinEpisode("a2", media + "/clip2s-b.mp4", "", "Two"));
        KavelinPlayer.PlayPlaylist("pl-ad");
        Pump(() => Log.Contains("ack") && Log[Log.Count - 1] == "VideoPlay(True)", 25);
        Expect("CallbackRegistered", "VideoPlay(True)", "VideoFinished(0)",
               "NextVideoAdRequired(0)", "ViewDismissed(ad_required)", "ack", "VideoPlay(True)");
        Check(ackThread != MainThread, "the ad was acknowledged from another thread");
    }

    static void EventsUnderGarbageCollection(string[] args) {
        KavelinPlayer.Register();
        KavelinPlayer.DispatchEvents();
        bool stop = false;
        ThreadStart churn = () => {
            while (!Volatile.Read(ref stop)) {
                var junk = new List<byte[]>();
                for (int i = 0; i < 64; ++i) junk.Add(new byte[4096]);
                GC.Collect();
                GC.WaitForPendingFinalizers();
            }
        };
        var collector = new Thread(churn);
        collector.Start();
        var seeks = new List<double>();
        int libraryThreadEvents = 0;
        KavelinPlayer.VideoSeekTo += s => {
            lock (seeks) seeks.Add(s);
            if (Thread.CurrentThread.ManagedThreadId != MainThread) ++libraryThreadEvents;
        };
        for (int i = 0; i < 300; ++i) {
            KavelinPlayer.SeekTo(i + 0.5);
            if (i % 10 == 0) KavelinPlayer.DispatchEvents();
        }
        KavelinPlayer.DispatchEvents();
        KavelinPlayer.RaiseEventsImmediately = true;
        for (int i = 300; i < 600; ++i) KavelinPlayer.SeekTo(i + 0.5);
        KavelinPlayer.RaiseEventsImmediately = false;
        Volatile.Write(ref stop, true);
        collector.Join();
        Check(seeks.Count == 600, "all 600 events arrived, got " + seeks.Count);
        for (int i = 0; i < seeks.Count; ++i)
            Check(seeks[i] == i + 0.5, "event " + i + " was " + seeks[i]);
        Check(libraryThreadEvents == 300, "immediate events ran on the library thread");
    }

    static void HandlersCallBackIn(string[] args) {
        var raw = new List<string>();
        var errors = new List<Exception>();
        KavelinPlayer.EventReceived += (m, p) => { lock (raw) raw.Add(m + ":" + p); };
        KavelinPlayer.HandlerFailed += e => errors.Add(e);
        KavelinPlayer.Register();
        KavelinPlayer.DispatchEvents();
        raw.Clear();

        // On the library's thread: a handler's own call runs inline, before Play returns.
        KavelinPlayer.RaiseEventsImmediately = true;
        VideoPlayHandler pauseOnPlay = fromPlayer => KavelinPlayer.Pause();
        KavelinPlayer.VideoPlay += pauseOnPlay;
        KavelinPlayer.Play();
        KavelinPlayer.VideoPlay -= pauseOnPlay;
        var inline = string.Join(",", raw.ToArray());
        Check(inline == "OnVideoPlay:Started,OnVideoPause:Paused", "inline call: " + inline);

        // A throwing handler is reported, not unwound into the library.
        Action boom = () => { throw new InvalidOperationException("boom"); };
        KavelinPlayer.VideoStop += boom;
        KavelinPlayer.Stop();
        Check(errors.Count == 1 && errors[0].Message == "boom", "handler failure reported");

        // Shutdown from inside the callback cannot wait for its own thread; the
        // library carries on with a fresh one.
        SecondsHandler shutdownInside = s => KavelinPlayer.Shutdown();
        KavelinPlayer.VideoSeekTo += shutdownInside;
        KavelinPlayer.SeekTo(1);
        KavelinPlayer.VideoSeekTo -= shutdownInside;
        KavelinPlayer.Play();
        Check(raw[raw.Count - 1] == "OnVideoPlay:Started",
              "the library answers after an inner shutdown");

        // On the game thread: a handler's call queues its event for the next frame,
        // and a throwing handler leaves the rest queued.
        KavelinPlayer.RaiseEventsImmediately = false;
        KavelinPlayer.VideoStop -= boom;
        KavelinPlayer.VideoPlay += pauseOnPlay;
        KavelinPlayer.Play();
        Check(KavelinPlayer.DispatchEvents() == 1 && KavelinPlayer.PendingEventCount == 1,
              "the handler's pause waits for the next frame");
        KavelinPlayer.VideoPlay -= pauseOnPlay;
        KavelinPlayer.VideoPause += () => { throw new InvalidOperationException("later"); };
        KavelinPlayer.Stop();
        try {
            KavelinPlayer.DispatchEvents();
            Check(false, "a handler's exception reaches the game");
        } catch (InvalidOperationException) {
        }
        Check(KavelinPlayer.PendingEventCount == 1,
              "the stop after the failing pause stays queued");
    }

    // exit shutdown|cleanup|none return|environment-exit; with none the binding's
    // safety net has to end the library thread.
    static void LeaveAfterCleanup(string[] args) {
        KavelinPlayer.Register();
        KavelinPlayer.SetPremium(true);
        Catalogue("pl-exit", new KavelinEpisode("x", media + "/clip3s.mp4", "", "X"));
        KavelinPlayer.PlayPlaylist("pl-exit");
        Pump(() => Log.Contains("VideoPlay(True)"), 15);
        Expect("CallbackRegistered", "VideoPlay(True)");
        if (args[2] == "shutdown") KavelinPlayer.Shutdown();
        if (args[2] == "cleanup") KavelinNative.cleanup();
    }

    static void SecondSession(string[] args) {
        // The policy lives on the library's player, which Shutdown drops: the binding
        // gives it back, so the second session gets its mid-roll too.
        KavelinPlayer.SetMidRollAdConfig(
            "{\"version\":1,\"adTimeoutSeconds\":30,\"globalConstraints\":" +
            "{\"minGapSeconds\":0,\"noAdZoneStartSeconds\":0.5,\"noAdZoneEndSeconds\":0.5}," +
            "\"durationBuckets\":[],\"videoOverrides\":{\"s1\":{\"cuePointSeconds\":[1.0]}}}");
        KavelinPlayer.SetPremium(false);
        Catalogue("pl-two", new KavelinEpisode("s1", media + "/clip3s.mp4", "", "S"));
        for (int session = 1; session <= 2; ++session) {
            Log.Clear();
            KavelinPlayer.Register();
            KavelinPlayer.PlayPlaylist("pl-two");
            Pump(() => Log.Contains("ViewDismissed(ad_required)"), 20);
            KavelinPlayer.AdCompleted();
            Pump(() => Log.Count >= 5, 10);
            Expect("CallbackRegistered", "VideoPlay(True)", "MidRollAdRequired(1)",
                   "ViewDismissed(ad_required)", "VideoPlay(True)");
            KavelinPlayer.Shutdown();
        }
    }

    static void Record() {
        Action<string> add = e => {
            lock (Log) Log.Add(e);
            handlerThread = Thread.CurrentThread.ManagedThreadId;
        };
        KavelinPlayer.CallbackRegistered += () => add("CallbackRegistered");
        KavelinPlayer.VideoPlay += p => add("VideoPlay(" + p + ")");
        KavelinPlayer.VideoFinished += i => add("VideoFinished(" + i + ")");
        KavelinPlayer.NextVideoAdRequired += i => add("NextVideoAdRequired(" + i + ")");
        KavelinPlayer.MidRollAdRequired += s => add("MidRollAdRequired(" + Invariant(s) + ")");
        KavelinPlayer.VideoSeekTo += s => add("VideoSeekTo(" + Invariant(s) + ")");
        KavelinPlayer.VideoTileClicked += id => add("VideoTileClicked(" + id + ")");
        KavelinPlayer.ViewDismissed += r => add("ViewDismissed(" + r + ")");
    }

    static string Invariant(double value) { return value.ToString(CultureInfo.InvariantCulture); }

    // The game loop: events are dispatched on this thread until `done` or the time is up.
    static void Pump(Func<bool> done, double seconds) {
        var until = DateTime.UtcNow.AddSeconds(seconds);
        while (DateTime.UtcNow < until) {
            KavelinPlayer.DispatchEvents();
            lock (Log) if (done()) return;
            Thread.Sleep(10);
        }
    }

    static void Catalogue(string id, params KavelinEpisode[] episodes) {
        KavelinPlayer.SetCatalogue(new[] { new KavelinPlaylist(id, id, "") },
                                   new[] { new KavelinEpisodes(id, episodes) });
    }

    static void FeedNative(string message) {
        var bytes = KavelinNative.Utf8(message);
        IntPtr p = Marshal.AllocHGlobal(bytes.Length);
        Marshal.Copy(bytes, 0, p, bytes.Length);
        KavelinPlayer.OnNativeEvent(p);
        Marshal.FreeHGlobal(p);
    }

    // The typed events so far must begin with `events`.
    static void Expect(params string[] events) {
        string want = string.Join(", ", events), got;
        lock (Log) got =
            string.Join(", ", Log.GetRange(0, Math.Min(Log.Count, events.Length)).ToArray());
        Check(got == want, "events should begin " + want + ", were " + got);
    }

    static string Last() { lock (Log) return Log.Count > 0 ? Log[Log.Count - 1] : ""; }

    static void Check(bool ok, string what) {
        if (!ok) Failures.Add(what);
    }
}
