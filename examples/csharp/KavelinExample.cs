// A minimal game loop on the C# binding: plays the library's sample catalogue as a
// free viewer, "shows" every ad it is asked for by waiting two seconds, and prints
// the events it hears. `make demo-cs` builds and runs it headless:
//   mcs -out:KavelinExample.exe bindings/csharp/*.cs examples/csharp/KavelinExample.cs
//   LD_LIBRARY_PATH=build mono KavelinExample.exe [seconds]
using System;
using System.Globalization;
using System.Threading;
using Kavelin;

static class KavelinExample
{
    // One mid-roll break 5 s into the first sample video; the cooldown keeps the
    // replayed video from asking again.
    const string Policy = "{\"version\":1,\"adTimeoutSeconds\":8,\"globalConstraints\":" +
        "{\"minGapSeconds\":5,\"noAdZoneStartSeconds\":2,\"noAdZoneEndSeconds\":2,\"minSecondsBetweenAnyAds\":20}," +
        "\"durationBuckets\":[],\"videoOverrides\":{\"sample-1-01\":{\"cuePointSeconds\":[5.0]}}}";

    static int Main(string[] args)
    {
        double seconds = args.Length > 0 ? double.Parse(args[0], CultureInfo.InvariantCulture) : 20;
        DateTime? adDoneAt = null;
        bool closed = false;
        int videosStarted = 0;
        Action showAd = () => adDoneAt = DateTime.UtcNow.AddSeconds(2);

        KavelinPlayer.VideoPlay += fromPlayer => { if (fromPlayer) ++videosStarted; Say("video playing"); };
        KavelinPlayer.VideoFinished += index => Say("video " + index + " finished");
        KavelinPlayer.MidRollAdRequired += cue => { Say("mid-roll ad at " + cue + " s"); showAd(); };
        KavelinPlayer.NextVideoAdRequired += index => { Say("ad before the video after " + index); showAd(); };
        KavelinPlayer.VideoTileClicked += id => { Say("viewer picked " + id + "; ad first"); showAd(); };
        KavelinPlayer.ViewDismissed += reason => { Say("screen closed: " + reason); closed |= reason == "user_exit"; };

        KavelinPlayer.Register();
        KavelinPlayer.SetPremium(false);
        KavelinPlayer.SetMidRollAdConfig(Policy);
        KavelinPlayer.PlayPlaylist("sample-playlist-1");

        var end = DateTime.UtcNow.AddSeconds(seconds);
        while (!closed && DateTime.UtcNow < end)  // the game's frames
        {
            KavelinPlayer.DispatchEvents();
            if (adDoneAt.HasValue && DateTime.UtcNow >= adDoneAt.Value)
            {
                adDoneAt = null;
                Say("ad done");
                KavelinPlayer.AdCompleted();
            }
            Thread.Sleep(16);
        }
        KavelinPlayer.Shutdown();  // on quit: lets the runtime exit
        KavelinPlayer.DispatchEvents();
        Say(videosStarted + " video starts");
        return videosStarted > 0 ? 0 : 1;
    }

    static void Say(string what)
    {
        Console.WriteLine("[game] " + what);
    }
}
