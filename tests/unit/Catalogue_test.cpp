#include "Kavelin/Model/Catalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kavelin {
namespace {

using ::testing::HasSubstr;

// The decoder's error text for `text`, or "" when it decoded.
template <typename Decode>
std::string decodingError(Decode decode, const std::string& text) {
    try {
        decode(text);
    } catch (const DecodingError& e) {
        return e.what();
    }
    return "";
}

std::string playlistsError(const std::string& text) {
    return decodingError([](const std::string& t) { decodePlaylistResponses(t); }, text);
}

std::string episodesError(const std::string& text) {
    return decodingError([](const std::string& t) { decodeEpisodeResponses(t); }, text);
}

std::string episodeWith(const std::string& key, const std::string& rawValue) {
    nlohmann::json e = {{"index", "e1"}, {"url", "u"},    {"thumbnail", "t"},
                        {"title", "T"},  {"isActive", 1}, {"length", 120}};
    e[key] = nlohmann::json::parse(rawValue);
    return nlohmann::json::array({{{"id", "pl-1"}, {"episodes", {e}}}}).dump();
}

// MARK: - Tier

TEST(SubscriptionStatus, RawValuesAreExactAndCaseSensitive) {
    EXPECT_EQ(rawValue(SubscriptionStatus::free), "free");
    EXPECT_EQ(rawValue(SubscriptionStatus::premium), "premium");
    EXPECT_EQ(subscriptionStatusFromRaw("free"), SubscriptionStatus::free);
    EXPECT_EQ(subscriptionStatusFromRaw("premium"), SubscriptionStatus::premium);
    EXPECT_EQ(subscriptionStatusFromRaw("Premium"), std::nullopt);
    EXPECT_EQ(subscriptionStatusFromRaw("FREE"), std::nullopt);
    EXPECT_EQ(subscriptionStatusFromRaw(""), std::nullopt);
    EXPECT_EQ(subscriptionStatusFromRaw("premium "), std::nullopt);
}

TEST(SubscriptionStatus, ProcessWideTierStartsFreeAndIsShared) {
    EXPECT_EQ(subscriptionStatus(), SubscriptionStatus::free);
    subscriptionStatus() = SubscriptionStatus::premium;
    EXPECT_EQ(subscriptionStatus(), SubscriptionStatus::premium);
    subscriptionStatus() = SubscriptionStatus::free;
}

// MARK: - Episode to video

TEST(EpisodeToVideo, TrimsOnlyTheEndsOfTheUrl) {
    Episode e;
    e.index = "7";
    e.url = "\n  media/a.mp4  ";
    e.title = "Seven";
    e.thumbnail = " img/7.png ";
    e.isActive = 1;
    e.length = 95;
    Video v = e.toVideo("pl-1");
    EXPECT_EQ(v.id, "7");
    EXPECT_EQ(v.url, "media/a.mp4");
    EXPECT_EQ(v.title, "Seven");
    EXPECT_EQ(v.thumbnail, " img/7.png ");  // only the address is cleaned
    EXPECT_EQ(v.description, "pl-1");
    EXPECT_FALSE(v.isWatched);

    e.url = "\t\r\n a b\tc \r\n";
    EXPECT_EQ(e.toVideo("x").url, "a b\tc");
    e.url = "\xC2\xA0media/b.m3u8\xE2\x80\xA8\xE3\x80\x80";  // no-break space, U+2028, U+3000
    EXPECT_EQ(e.toVideo("x").url, "media/b.m3u8");
    e.url = "media/\xC3\xA9t\xC3\xA9.mp4";  // non-blank multi-byte characters stay
    EXPECT_EQ(e.toVideo("x").url, "media/\xC3\xA9t\xC3\xA9.mp4");
    e.url = " \n\t ";
    EXPECT_EQ(e.toVideo("x").url, "");
}

// MARK: - Host playlist document

TEST(PlaylistDocument, DecodesTheHostsArray) {
    auto list = decodePlaylistResponses(
        R"([{"id":"pl-1","name":"Animals","thumbnail":"img/pl-1.png"},)"
        R"({"id":"pl-2","name":"Songs","thumbnail":"img/pl-2.png","extra":[1,2]}])");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].id, "pl-1");
    EXPECT_EQ(list[0].name, "Animals");
    EXPECT_EQ(list[0].thumbnail, "img/pl-1.png");
    EXPECT_EQ(list[1].id, "pl-2");
    EXPECT_TRUE(decodePlaylistResponses(" [ ] ").empty());
}

TEST(PlaylistDocument, RejectsTheWholeDocumentOnAnyBadElement) {
    EXPECT_EQ(playlistsError(R"([{"id":"a","name":"A","thumbnail":"t"},{"id":"b","name":"B"}])"),
              R"(key "thumbnail" not found at [1])");
    EXPECT_EQ(playlistsError(R"([{"id":"a","name":7,"thumbnail":"t"}])"),
              R"(key "name" at [0]: expected a string, found number)");
    EXPECT_EQ(playlistsError(R"([{"id":null,"name":"A","thumbnail":"t"}])"),
              R"(key "id" at [0]: expected a string, found null)");
    EXPECT_EQ(playlistsError(R"([{"id":"a","name":"A","thumbnail":"t"}, "b"])"),
              "value at [1]: expected an object, found string");
    EXPECT_EQ(playlistsError(R"({"id":"a","name":"A","thumbnail":"t"})"),
              "top level: expected an array, found object");
    EXPECT_EQ(playlistsError("null"), "top level: expected an array, found null");
}

// MARK: - Host episodes document

TEST(EpisodesDocument, DecodesTheHostsArray) {
    auto list = decodeEpisodeResponses(
        R"([{"id":"pl-1","episodes":[{"index":"e1","url":" media/e1.m3u8\n","thumbnail":"img/e1.png",)"
        R"("title":"Episode one","isActive":1,"length":120},{"index":"e2","url":"media/e2.m3u8",)"
        R"("thumbnail":"img/e2.png","title":"Episode two","isActive":0,"length":95}]}])");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].id, "pl-1");
    ASSERT_EQ(list[0].episodes.size(), 2u);
    const Episode& e1 = list[0].episodes[0];
    EXPECT_EQ(e1.index, "e1");
    EXPECT_EQ(e1.url, " media/e1.m3u8\n");  // kept raw; trimmed only by toVideo
    EXPECT_EQ(e1.thumbnail, "img/e1.png");
    EXPECT_EQ(e1.title, "Episode one");
    EXPECT_EQ(e1.isActive, 1);
    EXPECT_EQ(e1.length, 120);
    EXPECT_EQ(list[0].episodes[1].length, 95);
}

TEST(EpisodesDocument, IntegersMustBeIntegralJsonNumbers) {
    EXPECT_EQ(episodesError(episodeWith("isActive", R"("1")")),
              R"(key "isActive" at [0].episodes[0]: expected a number, found string)");
    EXPECT_EQ(episodesError(episodeWith("length", "true")),
              R"(key "length" at [0].episodes[0]: expected a number, found boolean)");
    EXPECT_EQ(episodesError(episodeWith("length", "12.5")),
              R"(key "length" at [0].episodes[0]: expected an integer, found 12.5)");
    EXPECT_THAT(episodesError(episodeWith("length", "9223372036854775808")),
                HasSubstr("does not fit a 64-bit integer"));
    EXPECT_THAT(episodesError(episodeWith("length", "1e19")),
                HasSubstr("does not fit a 64-bit integer"));

    EXPECT_EQ(decodeEpisodeResponses(episodeWith("length", "120.0"))[0].episodes[0].length, 120);
    EXPECT_EQ(decodeEpisodeResponses(episodeWith("length", "1e2"))[0].episodes[0].length, 100);
    EXPECT_EQ(decodeEpisodeResponses(episodeWith("length", "-3"))[0].episodes[0].length, -3);
    EXPECT_EQ(
        decodeEpisodeResponses(episodeWith("length", "9223372036854775807"))[0].episodes[0].length,
        INT64_MAX);
}

TEST(EpisodesDocument, TextFieldsAndStructureAreStrict) {
    EXPECT_EQ(episodesError(episodeWith("index", "7")),
              R"(key "index" at [0].episodes[0]: expected a string, found number)");
    EXPECT_EQ(episodesError(R"([{"id":"pl-1"}])"), R"(key "episodes" not found at [0])");
    EXPECT_EQ(episodesError(R"([{"id":"pl-1","episodes":{}}])"),
              R"(key "episodes" at [0]: expected an array, found object)");
    EXPECT_EQ(episodesError(R"([{"id":"pl-1","episodes":[]},{"id":"pl-2","episodes":[7]}])"),
              "value at [1].episodes[0]: expected an object, found number");

    nlohmann::json doc = nlohmann::json::parse(episodeWith("title", R"("x")"));
    doc[0]["episodes"][0].erase("url");
    EXPECT_EQ(episodesError(doc.dump()), R"(key "url" not found at [0].episodes[0])");
}

TEST(EpisodesDocument, ReportsTheOffendingElementDeepInTheDocument) {
    nlohmann::json doc = nlohmann::json::array();
    for (int p = 0; p < 2; ++p) {
        nlohmann::json episodes = nlohmann::json::array();
        for (int i = 0; i < 3; ++i)
            episodes.push_back({{"index", std::to_string(i)},
                                {"url", "u"},
                                {"thumbnail", "t"},
                                {"title", "T"},
                                {"isActive", 1},
                                {"length", 10}});
        doc.push_back({{"id", "pl-" + std::to_string(p)}, {"episodes", episodes}});
    }
    EXPECT_EQ(decodeEpisodeResponses(doc.dump()).size(), 2u);
    doc[0]["episodes"][2]["isActive"] = "yes";
    EXPECT_EQ(episodesError(doc.dump()),
              R"(key "isActive" at [0].episodes[2]: expected a number, found string)");
}

// MARK: - Text that is not a JSON document

TEST(DocumentText, EveryParseFailureIsADecodingError) {
    const std::string bad[] = {
        "",
        "   \n",
        "[{",
        "[] x",
        "[{\"id\":\"a\",}]",
        "[\"\xFF\"]",                      // byte that never occurs in UTF-8
        "[\"\xC3\"]",                      // truncated two-byte sequence
        "[\"\xC0\xAF\"]",                  // overlong encoding
        "[\"\xED\xA0\x80\"]",              // encoded surrogate
        std::string("[\"a\0b\"]", 7),      // raw control character
        "[1e999]",                         // number overflow
        std::string("\xFF\xFE[\0]\0", 6),  // UTF-16 text
    };
    for (const auto& text : bad) {
        std::string error = playlistsError(text);
        EXPECT_THAT(error, HasSubstr("malformed JSON")) << text;
        for (unsigned char c : error) EXPECT_LT(c, 0x80) << "error text must be safe to log";
        EXPECT_THAT(episodesError(text), HasSubstr("malformed JSON")) << text;
    }
    // A leading byte-order mark is tolerated, as the platform decoder does.
    EXPECT_TRUE(decodePlaylistResponses("\xEF\xBB\xBF[]").empty());
}

TEST(DocumentText, LargeDocumentsDecode) {
    // About 10 MB of episodes.
    std::string text = "[";
    const int playlistsCount = 20;
    const int perPlaylist = 3000;
    for (int p = 0; p < playlistsCount; ++p) {
        if (p) text += ",";
        text += R"({"id":"pl-)" + std::to_string(p) + R"(","episodes":[)";
        for (int i = 0; i < perPlaylist; ++i) {
            if (i) text += ",";
            text +=
                R"({"index":")" + std::to_string(i) +
                R"(","url":"https://cdn.example.com/media/episode/)" + std::to_string(i) +
                R"(/index.m3u8","thumbnail":"https://cdn.example.com/img/)" + std::to_string(i) +
                R"(.png","title":"An episode with a moderately long title","isActive":1,"length":120})";
        }
        text += "]}";
    }
    text += "]";
    ASSERT_GT(text.size(), 9'000'000u);
    auto list = decodeEpisodeResponses(text);
    ASSERT_EQ(list.size(), static_cast<size_t>(playlistsCount));
    EXPECT_EQ(list.back().episodes.size(), static_cast<size_t>(perPlaylist));
    EXPECT_EQ(list.back().episodes.back().index, std::to_string(perPlaylist - 1));

    // The same document with one ill-formed byte near its end is rejected whole.
    std::string broken = text;
    broken.insert(broken.size() - 40, "\xFF");
    EXPECT_THAT(episodesError(broken), HasSubstr("malformed JSON"));
}

TEST(DocumentText, DeeplyNestedDocumentsFailWithoutCrashing) {
    const size_t depth = 5'000'000;  // 10 MB of brackets
    std::string nested(depth, '[');
    nested.append(depth, ']');
    EXPECT_EQ(playlistsError(nested), "value at [0]: expected an object, found array");
    std::string unbalanced(depth, '[');
    EXPECT_THAT(playlistsError(unbalanced), HasSubstr("malformed JSON"));
}

// MARK: - Playlist and Video records

TEST(PlaylistRecord, OptionalFieldsMayBeAbsentOrNull) {
    auto json = nlohmann::json::parse(R"({"id":"p","name":null,"thumbnail":"t","videos":[]})");
    Playlist p = decodePlaylist(json);
    EXPECT_EQ(p.id, "p");
    EXPECT_EQ(p.name, std::nullopt);
    EXPECT_EQ(p.thumbnail, "t");
    EXPECT_EQ(p.description, std::nullopt);
    EXPECT_TRUE(p.videos.empty());

    nlohmann::json back = encode(p);
    EXPECT_FALSE(back.contains("description"));
    EXPECT_FALSE(back.contains("name"));
    EXPECT_EQ(back, nlohmann::json::parse(R"({"id":"p","thumbnail":"t","videos":[]})"));
}

TEST(PlaylistRecord, RequiresIdAndVideosWithCompleteVideos) {
    auto error = [](const char* text) {
        return decodingError([](const std::string& t) { decodePlaylist(nlohmann::json::parse(t)); },
                             text);
    };
    EXPECT_EQ(error(R"({"id":"p"})"), R"(key "videos" not found)");
    EXPECT_EQ(error(R"({"videos":[]})"), R"(key "id" not found)");
    EXPECT_EQ(error(R"({"id":"p","videos":[],"description":5})"),
              R"(key "description": expected a string, found number)");
    EXPECT_EQ(error(R"({"id":"p","videos":[{"id":"v","url":"u","title":"t","description":"d",)"
                    R"("thumbnail":"i"}]})"),
              R"(key "isWatched" not found at videos[0])");
    EXPECT_EQ(error(R"({"id":"p","videos":[{"id":"v","url":"u","title":"t","description":"d",)"
                    R"("thumbnail":"i","isWatched":"true"}]})"),
              R"(key "isWatched" at videos[0]: expected a boolean, found string)");
    EXPECT_EQ(error("[]"), "top level: expected an object, found array");
}

TEST(RecordEncoding, RoundTripsEveryField) {
    Video v("v1", "av://lavfi:testsrc", "Title", "pl-9", "file:///t.svg");
    v.isWatched = true;
    nlohmann::json vj = encode(v);
    EXPECT_EQ(vj.size(), 6u);
    Video v2 = decodeVideo(vj);
    EXPECT_EQ(v2.id, "v1");
    EXPECT_EQ(v2.url, "av://lavfi:testsrc");
    EXPECT_EQ(v2.title, "Title");
    EXPECT_EQ(v2.description, "pl-9");
    EXPECT_EQ(v2.thumbnail, "file:///t.svg");
    EXPECT_TRUE(v2.isWatched);

    Playlist p("p1", "Name", "thumb", "About", {v, Video("v2", "u", "t", "d", "i")});
    Playlist p2 = decodePlaylist(nlohmann::json::parse(encode(p).dump()));
    EXPECT_EQ(p2.name, "Name");
    EXPECT_EQ(p2.thumbnail, "thumb");
    EXPECT_EQ(p2.description, "About");
    ASSERT_EQ(p2.videos.size(), 2u);
    EXPECT_EQ(p2.videos[1].id, "v2");
    EXPECT_FALSE(p2.videos[1].isWatched);

    EpisodeResponse r{"pl-1", {}};
    Episode e;
    e.index = "3";
    e.url = " u\n";
    e.thumbnail = "t";
    e.title = "T";
    e.isActive = -1;
    e.length = INT64_MAX;
    r.episodes = {e, e};
    nlohmann::json ej = encode(e);
    EXPECT_TRUE(ej["isActive"].is_number_integer());
    EXPECT_EQ(decodeEpisode(ej).length, INT64_MAX);
    auto back = decodeEpisodeResponses(nlohmann::json::array({encode(r)}).dump());
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].episodes.size(), 2u);
    EXPECT_EQ(back[0].episodes[1].url, " u\n");
    EXPECT_EQ(back[0].episodes[1].isActive, -1);
}

// MARK: - Sample catalogue

TEST(SampleCatalogue, HasTheStatedShape) {
    const Playlist* samples[] = {&SampleVideos::Playlist1(), &SampleVideos::Playlist2(),
                                 &SampleVideos::Playlist3()};
    const size_t sizes[] = {10, 3, 4};
    std::set<std::string> playlistIds, videoIds, thumbnails, urls;
    const std::string thumbnailRoot = "kavelin:Thumbnails/";
    for (int i = 0; i < 3; ++i) {
        const Playlist& p = *samples[i];
        EXPECT_EQ(p.videos.size(), sizes[i]);
        EXPECT_FALSE(p.id.empty());
        EXPECT_TRUE(playlistIds.insert(p.id).second);
        ASSERT_TRUE(p.name && p.thumbnail && p.description);
        EXPECT_FALSE(p.name->empty());
        EXPECT_FALSE(p.description->empty());
        EXPECT_TRUE(p.thumbnail->starts_with(thumbnailRoot)) << *p.thumbnail;
        EXPECT_TRUE(thumbnails.insert(*p.thumbnail).second);
        for (const Video& v : p.videos) {
            EXPECT_TRUE(videoIds.insert(v.id).second) << v.id;
            EXPECT_FALSE(v.title.empty());
            EXPECT_EQ(v.description, p.id);
            EXPECT_FALSE(v.isWatched);
            EXPECT_TRUE(v.thumbnail.starts_with(thumbnailRoot)) << v.thumbnail;
            EXPECT_TRUE(v.thumbnail.ends_with(".svg"));
            EXPECT_TRUE(thumbnails.insert(v.thumbnail).second) << v.thumbnail;
            // A generated source of a fixed length: plays without network and parses
            // as a URL (no blanks or brackets); the graph itself holds no edit-list
            // separator.
            const std::string head = "edl://file=av://lavfi:";
            EXPECT_TRUE(v.url.starts_with(head)) << v.url;
            EXPECT_EQ(v.url.find_first_of(" []\t\n"), std::string::npos) << v.url;
            auto comma = v.url.find(',');
            ASSERT_NE(comma, std::string::npos) << v.url;
            EXPECT_EQ(v.url.find_first_of(",;", head.size()), comma) << v.url;
            ASSERT_TRUE(v.url.substr(comma).starts_with(",length=")) << v.url;
            int seconds = std::stoi(v.url.substr(comma + 8));
            EXPECT_GE(seconds, 20);
            EXPECT_LE(seconds, 60);
            EXPECT_TRUE(urls.insert(v.url).second) << v.url;
        }
    }
}

TEST(SampleCatalogue, StaticListsAreCopiesAndSettable) {
    EXPECT_EQ(Playlist::mockPlaylist().id, SampleVideos::Playlist1().id);
    EXPECT_EQ(Playlist::mockPlaylist().videos.size(), 10u);
    ASSERT_EQ(Playlist::allPlaylists().size(), 3u);
    EXPECT_EQ(Playlist::allPlaylists()[0].id, SampleVideos::Playlist1().id);
    EXPECT_EQ(Playlist::allPlaylists()[1].id, SampleVideos::Playlist2().id);
    EXPECT_EQ(Playlist::allPlaylists()[2].id, SampleVideos::Playlist3().id);

    ASSERT_EQ(playlists().size(), 3u);
    EXPECT_EQ(playlists()[2].videos.size(), 4u);

    // Changing the settable copies leaves the samples themselves alone.
    Playlist saved = Playlist::mockPlaylist();
    Playlist::mockPlaylist().videos.clear();
    EXPECT_TRUE(Playlist::mockPlaylist().videos.empty());
    EXPECT_EQ(SampleVideos::Playlist1().videos.size(), 10u);
    Playlist::mockPlaylist() = saved;

    std::vector<Playlist> savedList = playlists();
    playlists() = {Playlist("only", std::nullopt, std::nullopt, std::nullopt, {})};
    EXPECT_EQ(playlists().size(), 1u);
    EXPECT_EQ(Playlist::allPlaylists().size(), 3u);
    playlists() = savedList;
}

}  // namespace
}  // namespace kavelin
