#include "korvo/variant_utils/uri.h"

#include <gmock/gmock.h>

#include <array>
#include <thread>

#include "korvo/utils/host.h"
#include "support/cases.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;
using testing::ElementsAre;

namespace {

std::vector<std::string> askedHosts;

/** schema|userName|password|host|port|portSpecified|documentPath|document */
std::string parts(const std::string& text) {
    URI uri;
    uri["stale"] = 1;
    if (!parseURI(text, uri)) return VariantType(uri) == TypeNull ? "refused" : "refused, but not empty";
    const std::string folder = uri.documentPath(), document = uri["document"];
    return uri.schema() + '|' + uri.userName() + '|' + uri.password() + '|' + uri.host() + '|' +
           std::to_string(uri.port()) + (uri.portSpecified() ? "|yes|" : "|no|") + folder + '|' + document;
}

}  // namespace

// Stands in front of the utility library's own resolver.
std::string korvo::utils::getHostByName(const std::string& name) {
    askedHosts.push_back(name);
    return name == "known" ? "192.0.2.1" : "";
}

namespace {

TEST(ParseUri, FirstUseMayBeInManyThreadsAtOnce) {
    std::array<URI, 8> uris;
    std::array<std::thread, 8> threads;
    for (std::size_t i = 0; i < uris.size(); ++i)
        threads[i] =
            std::thread([&uri = uris[i]] { EXPECT_TRUE(parseURI("RTSP://u:p@cam:1/a/b?c=1", uri)); });
    for (std::thread& thread : threads) thread.join();
    for (const URI& uri : uris) EXPECT_EQ(uri, uris[0]);
}

TEST(ParseUri, FillsEveryMember) {
    for (const auto& [given, expected] : test::readCases("uri_records.txt")) {
        URI uri;
        uri["stale"] = 1;
        ASSERT_TRUE(parseURI(given, uri));
        EXPECT_EQ(uri["fullUriWithAuth"], Variant(given));
        uri["fullUriWithAuth"] = Variant();  // may end in a line feed, which has no place in key=value text
        EXPECT_EQ(test::shown(uri) + '\n', "1010 " + expected);
        EXPECT_TRUE(VariantType(uri["port"]) == TypeUInt16 && VariantType(uri["portSpecified"]) == TypeBool);
        EXPECT_EQ(VariantType(uri["parameters"]), TypeMap);
    }
}

TEST(ParseUri, TakesEachPieceFromItsPlace) {
    for (const auto& [text, expected] : test::readCases("uri.txt")) EXPECT_EQ(parts(text), expected) << text;
}

TEST(ParseUri, RefusesWithOneMessageAndAnEmptyRecord) {
    test::LogCapture log;
    for (const auto& [text, message] : test::readCases("uri_refused.txt")) {
        EXPECT_EQ(parts(text), "refused") << text;
        const auto lines = log.take();
        ASSERT_TRUE(lines.size() == 1 && lines[0].sourceFile == "src/uri" && lines[0].function == "parseURI");
        EXPECT_EQ(lines[0].message, message);
    }
}

TEST(UriRecord, GettersPutTheirDefaultWhereNothingFits) {
    URI uri;
    uri["port"] = "80";
    uri["portSpecified"] = 1;
    uri["schema"] = 5;
    EXPECT_TRUE(uri.host().empty() && uri.schema().empty() && uri.port() == 0 && !uri.portSpecified());
    EXPECT_EQ(test::shown(uri), "1010 host=\nport=0\nportSpecified=0\nschema=");
    uri["port"] = -1;
    EXPECT_TRUE(uri.port() == 65535 && uri["port"] == Variant(-1));
    static_cast<Variant&>(uri) = 5;
    uri.schema("rtsp");
    EXPECT_EQ(test::shown(uri), "1010 schema=rtsp");
}

TEST(UriRecord, ComposesTheBaseFromMembers) {
    for (const auto& [text, base] : test::readCases("uri_bases.txt")) {
        URI uri;
        ASSERT_TRUE(parseURI(text, uri)) << text;
        EXPECT_EQ(uri.baseURI(), base) << text;
    }
    URI uri;
    EXPECT_EQ(uri.baseURI(), "");
    EXPECT_EQ(test::shown(uri), "1010 schema=");
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0", uri));
    uri["portSpecified"] = true;
    uri["port"] = "none";
    EXPECT_EQ(uri.baseURI(), "rtsp://cam:0/live/");
}

TEST(UriRecord, DerivesSiblingsWithoutPuttingAnythingBetween) {
    URI uri;
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0?a=1&b=2", uri));
    EXPECT_EQ(uri.derivedURI("ch1", false), "rtsp://cam/live/ch1");
    EXPECT_EQ(uri.derivedURI("ch1?", true), "rtsp://cam/live/ch1?a=1&b=2");
    EXPECT_EQ(uri.derivedURI("", true), "rtsp://cam/live/a=1&b=2");
    URI empty;
    EXPECT_EQ(empty.derivedURI("doc", false), "doc");
    EXPECT_EQ(test::shown(empty), "1010 fullParameters=\nschema=");
}

TEST(PercentDecode, DecodesEscapesOnceAndLeavesTheRest) {
    for (const auto& [text, decoded] : test::readCases("percent_escapes.txt"))
        EXPECT_EQ(percentDecode(text), decoded) << text;
}

TEST(UriFromString, ResolvesTheHostOnlyWhenAskedTo) {
    test::LogCapture log;
    URI uri;
    askedHosts.clear();
    EXPECT_TRUE(URI::FromString("http://unknown/", false, uri) && uri["ip"] == Variant(""));
    EXPECT_TRUE(URI::FromString("file:///x", true, uri) && uri["ip"] == Variant(""));
    EXPECT_TRUE(!URI::FromString("nonsense", true, uri) && uri == Variant());
    EXPECT_TRUE(URI::FromString("http://known/", true, uri) && uri["ip"] == Variant("192.0.2.1"));
    EXPECT_TRUE(!URI::FromString("http://unknown/", true, uri) && uri == Variant());
    EXPECT_THAT(askedHosts, ElementsAre("known", "unknown"));
    EXPECT_EQ(log.messages(), "Unable to determine schema|Unable to resolve host: unknown");
}

}  // namespace
