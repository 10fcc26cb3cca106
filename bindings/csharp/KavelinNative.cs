// The library's C functions as they are exported, one for one. Strings cross as
// NUL-terminated UTF-8 in both directions whatever the runtime's default, and
// every bool is one byte, as in C.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Kavelin
{
    public static class KavelinNative
    {
        public const string Library = "Kavelin";

        // One event as "Method:payload", UTF-8, valid only during the call.
        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        public delegate void EventCallback(IntPtr message);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void registerUnityCallback(EventCallback callback);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void loadVideo(byte[] urlString);
        public static void loadVideo(string urlString) { loadVideo(Utf8(urlString)); }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void play();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void pause();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void stop();
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void seekForward(double seconds);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void seekBackward(double seconds);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void seekTo(double value);
        // Also ends the library's thread; the next call starts a fresh one.
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void cleanup();

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setURLS(IntPtr[] urls, int count);
        // Null entries are skipped by the library, as in C.
        public static void setURLS(string[] urls)
        {
            if (urls == null) { setURLS(null, 0); return; }
            var pointers = new IntPtr[urls.Length];
            try
            {
                for (int i = 0; i < urls.Length; ++i) pointers[i] = AllocUtf8(urls[i]);
                setURLS(pointers, pointers.Length);
            }
            finally
            {
                foreach (var p in pointers) if (p != IntPtr.Zero) Marshal.FreeHGlobal(p);
            }
        }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowForwardButton([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowBackwordButton([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowBack10Button([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowFor10Button([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowPlayPauseButton([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowBackButton([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowLogo([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowSeekbar([MarshalAs(UnmanagedType.U1)] bool show);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void setShowTimeDuration([MarshalAs(UnmanagedType.U1)] bool show);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void SetPlaylists(byte[] json);
        public static void SetPlaylists(string json) { SetPlaylists(Utf8(json)); }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void SetEpisodes(byte[] json);
        public static void SetEpisodes(string json) { SetEpisodes(Utf8(json)); }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void PlayPlaylist(byte[] playlistId);
        public static void PlayPlaylist(string playlistId) { PlayPlaylist(Utf8(playlistId)); }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void SetPremium([MarshalAs(UnmanagedType.U1)] bool isPremium);
        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void SetAdRequired([MarshalAs(UnmanagedType.U1)] bool required);

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void SetMidRollAdConfig(byte[] json);
        public static void SetMidRollAdConfig(string json) { SetMidRollAdConfig(Utf8(json)); }

        [DllImport(Library, CallingConvention = CallingConvention.Cdecl)]
        public static extern void AdCompletedResumePlayback();

        // NUL-terminated UTF-8; null stays null (the library logs and ignores it).
        public static byte[] Utf8(string text)
        {
            if (text == null) return null;
            var bytes = new byte[Encoding.UTF8.GetByteCount(text) + 1];
            Encoding.UTF8.GetBytes(text, 0, text.Length, bytes, 0);
            return bytes;
        }

        // The text of a NUL-terminated UTF-8 buffer owned by the caller.
        public static string FromUtf8(IntPtr text)
        {
            if (text == IntPtr.Zero) return null;
            int length = 0;
            while (Marshal.ReadByte(text, length) != 0) ++length;
            var bytes = new byte[length];
            Marshal.Copy(text, bytes, 0, length);
            return Encoding.UTF8.GetString(bytes);
        }

        static IntPtr AllocUtf8(string text)
        {
            var bytes = Utf8(text);
            if (bytes == null) return IntPtr.Zero;
            var p = Marshal.AllocHGlobal(bytes.Length);
            Marshal.Copy(bytes, 0, p, bytes.Length);
            return p;
        }
    }
}
