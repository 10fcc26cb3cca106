#include "Kavelin/Model/Catalogue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <string>

namespace kavelin {
namespace {

using nlohmann::json;
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
const auto playlistsError = [](auto t) { return decodingError(decodePlaylistResponses, t); };
const auto episodesError = [](auto t) { return decodingError(decodeEpisodeResponses, t); };

json episode(const std::string& index = "e1") {
    return {{"index", index}, {"url", "u"},    {"thumbnail", "t"},
            {"title", "T"},   {"isActive", 1}, {"length", 120}};
}
std::string episodeWith(const std::string& key, const std::string& rawValue) {
    json e = episode();
    e[key] = json::parse(rawValue);
    return json::array({{{"id", "pl-1"}, {"episodes", {e}}}}).dump();
}

TEST(SubscriptionStatus, RawValuesAreExactAndTheProcessTierStartsFree) {
    for (auto [status, raw] : {std::pair{SubscriptionStatus::free, "free"},
                               std::pair{SubscriptionStatus::premium, "premium"}}) {
        EXPECT_EQ(rawValue(status), raw);
        EXPECT_EQ(subscriptionStatusFromRaw(raw), status);
    }
    for (const char* bad : {"Premium", "FREE", "", "premium "})
        EXPECT_EQ(subscriptionStatusFromRaw(bad), std::nullopt) << bad;
    EXPECT_EQ(subscriptionStatus(), SubscriptionStatus::free);
}

TEST(EpisodeToVideo, TrimsOnlyTheEndsOfTheUrl) {
    Episode e{"7", "\n  media/a.mp4  ", " img/7.png ", "Seven", 1, 95};
    Video v = e.toVideo("pl-1");
    // Only the address is cleaned.
    EXPECT_EQ(std::tie(v.id, v.url, v.title, v.description, v.thumbnail, v.isWatched),
              std::make_tuple("7", "media/a.mp4", "Seven", "pl-1", " img/7.png ", false));
    const std::pair<std::string, std::string> urls[] = {
        {"\t\r\n a b\tc \r\n", "a b\tc"},
        // no-break space, U+2028, U+3000
        {"\xC2\xA0media/b.m3u8\xE2\x80\xA8\xE3\x80\x80", "media/b.m3u8"},
        {"media/\xC3\xA9t\xC3\xA9.mp4", "media/\xC3\xA9t\xC3\xA9.mp4"},  // non-blank multi-byte
        {" \n\t ", ""}};
    for (const auto& [raw, trimmed] : urls) {
        e.url = raw;
        EXPECT_EQ(e.toVideo("x").url, trimmed);
    }
}

TEST(HostDocuments, DecodeTheHostsArrays) {
    auto list = decodePlaylistResponses(
        R"([{"id":"pl-1","name":"Animals","thumbnail":"img/pl-1.png"},)"
        R"({"id":"pl-2","name":"Songs","thumbnail":"img/pl-2.png","extra":[1,2]}])");
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(std::tie(list[0].id, list[0].name, list[0].thumbnail),
              std::make_tuple("pl-1", "Animals", "img/pl-1.png"));
    EXPECT_EQ(list[1].id, "pl-2");
    EXPECT_TRUE(decodePlaylistResponses(" [ ] ").empty());

    const std::string text =
        R"([{"id":"pl-1","episodes":[{"index":"e1","url":" media/e1.m3u8\n","thumbnail":"img/e1.png",)"
        R"("title":"Episode one","isActive":1,"length":120},{"index":"e2","url":"media/e2.m3u8",)"
        R"("thumbnail":"img/e2.png","title":"Episode two","isActive":0,"length":95}]}])";
    auto groups = decodeEpisodeResponses(text);
    ASSERT_EQ(groups.size(), 1u);
    // Every field as sent: the address is kept raw; only toVideo trims it.
    EXPECT_EQ(encode(groups[0]), json::parse(text)[0]);
    EXPECT_EQ(groups[0].episodes.at(0).url, " media/e1.m3u8\n");
}

TEST(HostDocuments, OneBadElementOrFieldRejectsTheWholeDocument) {
    const std::pair<std::string, std::string> lists[] = {
        {R"([{"id":"a","name":"A","thumbnail":"t"},{"id":"b","name":"B"}])",
         R"(key "thumbnail" not found at [1])"},
        {R"([{"id":"a","name":7,"thumbnail":"t"}])",
         R"(key "name" at [0]: expected a string, found number)"},
        {R"([{"id":null,"name":"A","thumbnail":"t"}])",
         R"(key "id" at [0]: expected a string, found null)"},
        {R"([{"id":"a","name":"A","thumbnail":"t"}, "b"])",
         "value at [1]: expected an object, found string"},
        {R"({"id":"a","name":"A","thumbnail":"t"})", "top level: expected an array, found object"},
        {"null", "top level: expected an array, found null"}};
    for (const auto& [doc, error] : lists) EXPECT_EQ(playlistsError(doc), error) << doc;
    json deep = json::array();
    for (int p = 0; p < 2; ++p)
        deep.push_back({{"id", "pl-" + std::to_string(p)},
                        {"episodes", {episode("0"), episode("1"), episode("2")}}});
    EXPECT_EQ(decodeEpisodeResponses(deep.dump()).size(), 2u);
    deep[0]["episodes"][2]["isActive"] = "yes";
    json noUrl = json::parse(episodeWith("title", R"("x")"));
    noUrl[0]["episodes"][0].erase("url");

    const std::string at = " at [0].episodes[0]: ";
    const std::pair<std::string, std::string> cases[] = {
        {episodeWith("isActive", R"("1")"),
         R"(key "isActive")" + at + "expected a number, found string"},
        {episodeWith("length", "true"),
         R"(key "length")" + at + "expected a number, found boolean"},
        {episodeWith("length", "12.5"), R"(key "length")" + at + "expected an integer, found 12.5"},
        {episodeWith("length", "9223372036854775808"),
         R"(key "length")" + at + "number 9223372036854775808 does not fit a 64-bit integer"},
        {episodeWith("length", "1e19"),
         R"(key "length")" + at + "number 1e+19 does not fit a 64-bit integer"},
        {episodeWith("index", "7"), R"(key "index")" + at + "expected a string, found number"},
        {R"([{"id":"pl-1"}])", R"(key "episodes" not found at [0])"},
        {R"([{"id":"pl-1","episodes":{}}])",
         R"(key "episodes" at [0]: expected an array, found object)"},
        {R"([{"id":"pl-1","episodes":[]},{"id":"pl-2","episodes":[7]}])",
         "value at [1].episodes[0]: expected an object, found number"},
        {noUrl.dump(), R"(key "url" not found at [0].episodes[0])"},
        // The offending element is named however deep it sits.
        {deep.dump(), R"(key "isActive" at [0].episodes[2]: expected a number, found string)"}};
    for (const auto& [doc, error] : cases) EXPECT_EQ(episodesError(doc), error) << doc;
    // Integral JSON numbers of any spelling are integers.
    const std::pair<const char*, int64_t> integers[] = {
        {"120.0", 120}, {"1e2", 100}, {"-3", -3}, {"9223372036854775807", INT64_MAX}};
    for (const auto& [raw, value] : integers)
        EXPECT_EQ(decodeEpisodeResponses(episodeWith("length", raw))[0].episodes[0].length, value);
}

TEST(DocumentText, EveryParseFailureIsADecodingErrorAndSizeOrDepthIsNone) {
    // Broken syntax; bytes that never occur in UTF-8, a truncated sequence, an overlong
    // encoding, an encoded surrogate; a raw control character; overflow; UTF-16 text.
    // clang-format off
    const std::string bad[] = {"", "   \n", "[{", "[] x", "[{\"id\":\"a\",}]",
        "[\"\xFF\"]", "[\"\xC3\"]", "[\"\xC0\xAF\"]", "[\"\xED\xA0\x80\"]",
        std::string("[\"a\0b\"]", 7), "[1e999]", std::string("\xFF\xFE[\0]\0", 6)};
    // clang-format on
    for (const auto& text : bad) {
        std::string error = playlistsError(text);
        EXPECT_THAT(error, HasSubstr("malformed JSON")) << text;
        for (unsigned char c : error) EXPECT_LT(c, 0x80) << "error text must be safe to log";
        EXPECT_THAT(episodesError(text), HasSubstr("malformed JSON")) << text;
    }
    // A leading byte-order mark is tolerated, as the platform decoder does.
    EXPECT_TRUE(decodePlaylistResponses("\xEF\xBB\xBF[]").empty());
    // About 10 MB of episodes: 20 playlists of 3000.
    json e = episode(), episodes = json::array(), doc = json::array();
    e["title"] = "An episode with a moderately long title and then some more words";
    for (int i = 0; i < 3000; ++i) {
        e["index"] = std::to_string(i);
        e["url"] = "https://cdn.example.com/media/episode/" + std::to_string(i) + "/index.m3u8";
        episodes.push_back(e);
    }
    for (int p = 0; p < 20; ++p)
        doc.push_back({{"id", "pl-" + std::to_string(p)}, {"episodes", episodes}});
    std::string text = doc.dump();
    ASSERT_GT(text.size(), 9'000'000u);
    auto list = decodeEpisodeResponses(text);
    ASSERT_EQ(list.size(), 20u);
    EXPECT_EQ(list.back().episodes.size(), 3000u);
    EXPECT_EQ(list.back().episodes.back().index, "2999");
    // The same document with one ill-formed byte near its end is rejected whole.
    text.insert(text.size() - 40, 1, '\xFF');
    EXPECT_THAT(episodesError(text), HasSubstr("malformed JSON"));
    // 10 MB of brackets fail without exhausting the stack.
    const size_t depth = 5'000'000;
    std::string nested(depth, '[');
    EXPECT_THAT(playlistsError(nested), HasSubstr("malformed JSON"));
    nested.append(depth, ']');
    EXPECT_EQ(playlistsError(nested), "value at [0]: expected an object, found array");
}

TEST(Records, OptionalFieldsMayBeAbsentRequiredOnesMustBeThereAndEveryFieldRoundTrips) {
    Playlist sparse =
        decodePlaylist(json::parse(R"({"id":"p","name":null,"thumbnail":"t","videos":[]})"));
    EXPECT_EQ(std::tie(sparse.id, sparse.name, sparse.thumbnail, sparse.description),
              std::make_tuple("p", std::nullopt, "t", std::nullopt));
    EXPECT_EQ(encode(sparse), json::parse(R"({"id":"p","thumbnail":"t","videos":[]})"));

    auto error = [](const std::string& text) {
        return decodingError([](const std::string& t) { decodePlaylist(json::parse(t)); }, text);
    };
    const std::string video = R"({"id":"p","videos":[{"id":"v","url":"u","title":"t",)"
                              R"("description":"d","thumbnail":"i")";
    const std::pair<std::string, std::string> cases[] = {
        {R"({"id":"p"})", R"(key "videos" not found)"},
        {R"({"videos":[]})", R"(key "id" not found)"},
        {R"({"id":"p","videos":[],"description":5})",
         R"(key "description": expected a string, found number)"},
        {video + "}]}", R"(key "isWatched" not found at videos[0])"},
        {video + R"(,"isWatched":"true"}]})",
         R"(key "isWatched" at videos[0]: expected a boolean, found string)"},
        {"[]", "top level: expected an object, found array"}};
    for (const auto& [doc, expected] : cases) EXPECT_EQ(error(doc), expected) << doc;

    Video v("v1", "av://lavfi:testsrc", "Title", "pl-9", "file:///t.svg");
    v.isWatched = true;
    EXPECT_EQ(encode(v).size(), 6u);
    Video v2 = decodeVideo(encode(v));
    EXPECT_EQ(std::tie(v2.id, v2.url, v2.title, v2.description, v2.thumbnail, v2.isWatched),
              std::make_tuple("v1", "av://lavfi:testsrc", "Title", "pl-9", "file:///t.svg", true));

    Playlist p("p1", "Name", "thumb", "About", {v, Video("v2", "u", "t", "d", "i")});
    Playlist p2 = decodePlaylist(json::parse(encode(p).dump()));
    EXPECT_EQ(std::tie(p2.name, p2.thumbnail, p2.description),
              std::make_tuple("Name", "thumb", "About"));
    EXPECT_EQ(encode(p2), encode(p));

    // The raw address, the negative flag and the largest length survive, written as integers.
    Episode e{"3", " u\n", "t", "T", -1, INT64_MAX};
    EXPECT_TRUE(encode(e)["isActive"].is_number_integer());
    EXPECT_EQ(encode(decodeEpisode(encode(e))), encode(e));
}

TEST(SampleCatalogue, HasTheStatedShapeAndSettableCopies) {
    const Playlist* samples[] = {&SampleVideos::Playlist1(), &SampleVideos::Playlist2(),
                                 &SampleVideos::Playlist3()};
    const size_t sizes[] = {10, 3, 4};
    std::set<std::string> playlistIds, videoIds, thumbnails, urls;
    const std::string thumbnailRoot = "kavelin:Thumbnails/";
    const std::regex urlShape(R"(edl://file=av://lavfi:[^,; \[\]\t\n]*,length=(\d+)[^ \[\]\t\n]*)");
    ASSERT_EQ(std::pair(Playlist::allPlaylists().size(), playlists().size()),
              (std::pair<size_t, size_t>(3, 3)));
    for (int i = 0; i < 3; ++i) {
        const Playlist& p = *samples[i];
        EXPECT_EQ(p.videos.size(), sizes[i]);
        EXPECT_EQ(Playlist::allPlaylists()[i].id, p.id);
        EXPECT_EQ(playlists()[i].videos.size(), p.videos.size());
        EXPECT_TRUE(!p.id.empty() && playlistIds.insert(p.id).second);
        ASSERT_TRUE(p.name && p.thumbnail && p.description);
        EXPECT_FALSE(p.name->empty() || p.description->empty());
        EXPECT_TRUE(p.thumbnail->starts_with(thumbnailRoot)) << *p.thumbnail;
        EXPECT_TRUE(thumbnails.insert(*p.thumbnail).second);
        for (const Video& v : p.videos) {
            EXPECT_TRUE(videoIds.insert(v.id).second) << v.id;
            EXPECT_FALSE(v.title.empty());
            EXPECT_EQ(v.description, p.id);
            EXPECT_FALSE(v.isWatched);
            EXPECT_TRUE(v.thumbnail.starts_with(thumbnailRoot) && v.thumbnail.ends_with(".svg"))
                << v.thumbnail;
            EXPECT_TRUE(thumbnails.insert(v.thumbnail).second) << v.thumbnail;
            // A generated source of a fixed length: plays without network and parses
            // as a URL (no blanks or brackets); the graph holds no edit-list separator.
            std::smatch m;
            ASSERT_TRUE(std::regex_match(v.url, m, urlShape)) << v.url;
            EXPECT_TRUE(std::stoi(m[1]) >= 20 && std::stoi(m[1]) <= 60) << v.url;
            EXPECT_TRUE(urls.insert(v.url).second) << v.url;
        }
    }
    EXPECT_EQ(encode(Playlist::mockPlaylist()), encode(*samples[0]));
    // Changing the settable copies leaves the samples themselves alone.
    Playlist saved = Playlist::mockPlaylist();
    Playlist::mockPlaylist().videos.clear();
    EXPECT_TRUE(Playlist::mockPlaylist().videos.empty());
    EXPECT_EQ(SampleVideos::Playlist1().videos.size(), 10u);
    Playlist::mockPlaylist() = saved;
    std::vector<Playlist> savedList = playlists();
    playlists() = {Playlist("only", std::nullopt, std::nullopt, std::nullopt, {})};
    EXPECT_EQ(Playlist::allPlaylists().size(), 3u);
    playlists() = savedList;
}

}  // namespace
}  // namespace kavelin
