// The catalogue as the game builds it, and the two JSON documents the library reads.
using System.Collections.Generic;
using System.Globalization;
using System.Text;

namespace Kavelin
{
    // One playlist of the playlists document.
    public sealed class KavelinPlaylist
    {
        public string Id;
        public string Name;
        public string Thumbnail;

        public KavelinPlaylist(string id, string name, string thumbnail)
        {
            Id = id; Name = name; Thumbnail = thumbnail;
        }
    }

    // One episode; its Index is the video's id in events such as VideoTileClicked.
    public sealed class KavelinEpisode
    {
        public string Index;
        public string Url;
        public string Thumbnail;
        public string Title;
        public int IsActive = 1;
        public int Length;

        public KavelinEpisode(string index, string url, string thumbnail, string title,
                              int isActive = 1, int length = 0)
        {
            Index = index; Url = url; Thumbnail = thumbnail; Title = title;
            IsActive = isActive; Length = length;
        }
    }

    // The episodes of one playlist, in play order.
    public sealed class KavelinEpisodes
    {
        public string PlaylistId;
        public List<KavelinEpisode> Episodes;

        public KavelinEpisodes(string playlistId, IEnumerable<KavelinEpisode> episodes)
        {
            PlaylistId = playlistId;
            Episodes = new List<KavelinEpisode>(episodes ?? new KavelinEpisode[0]);
        }
    }

    public static class KavelinJson
    {
        // [{"id":…,"name":…,"thumbnail":…}, …]
        public static string Playlists(IEnumerable<KavelinPlaylist> playlists)
        {
            var json = new StringBuilder("[");
            foreach (var p in playlists ?? new KavelinPlaylist[0])
            {
                if (p == null) continue;
                if (json.Length > 1) json.Append(',');
                json.Append("{\"id\":").Append(Quote(p.Id))
                    .Append(",\"name\":").Append(Quote(p.Name))
                    .Append(",\"thumbnail\":").Append(Quote(p.Thumbnail)).Append('}');
            }
            return json.Append(']').ToString();
        }

        // [{"id":playlist id,"episodes":[{"index":…,"url":…,"thumbnail":…,"title":…,
        //   "isActive":n,"length":n}, …]}, …]
        public static string Episodes(IEnumerable<KavelinEpisodes> groups)
        {
            var json = new StringBuilder("[");
            foreach (var g in groups ?? new KavelinEpisodes[0])
            {
                if (g == null) continue;
                if (json.Length > 1) json.Append(',');
                json.Append("{\"id\":").Append(Quote(g.PlaylistId)).Append(",\"episodes\":[");
                bool first = true;
                foreach (var e in g.Episodes ?? new List<KavelinEpisode>())
                {
                    if (e == null) continue;
                    if (!first) json.Append(',');
                    first = false;
                    json.Append("{\"index\":").Append(Quote(e.Index))
                        .Append(",\"url\":").Append(Quote(e.Url))
                        .Append(",\"thumbnail\":").Append(Quote(e.Thumbnail))
                        .Append(",\"title\":").Append(Quote(e.Title))
                        .Append(",\"isActive\":").Append(e.IsActive.ToString(CultureInfo.InvariantCulture))
                        .Append(",\"length\":").Append(e.Length.ToString(CultureInfo.InvariantCulture))
                        .Append('}');
                }
                json.Append("]}");
            }
            return json.Append(']').ToString();
        }

        // A JSON string; every key is required, so a null text goes as "".
        public static string Quote(string text)
        {
            var s = new StringBuilder("\"");
            foreach (char c in text ?? "")
            {
                switch (c)
                {
                    case '"': s.Append("\\\""); break;
                    case '\\': s.Append("\\\\"); break;
                    case '\n': s.Append("\\n"); break;
                    case '\r': s.Append("\\r"); break;
                    case '\t': s.Append("\\t"); break;
                    default:
                        if (c < 0x20) s.Append("\\u").Append(((int)c).ToString("x4", CultureInfo.InvariantCulture));
                        else s.Append(c);
                        break;
                }
            }
            return s.Append('"').ToString();
        }
    }
}
