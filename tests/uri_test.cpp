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
std::string parts(const std::string& text, korvo::Failure* failure = nullptr) {
    URI uri;
    uri["stale"] = 1;
    if (!parseURI(text, uri, failure))
        return VariantType(uri) == TypeNull ? "refused" : "refused, but not empty";
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
        SCOPED_TRACE(given);
        URI uri;
        uri["stale"] = 1;
        ASSERT_TRUE(parseURI(given, uri));
        EXPECT_EQ(uri["fullUriWithAuth"], Variant(given));
        uri["fullUriWithAuth"] = Variant();  // may end in a line feed, which has no place in key=value text
        EXPECT_EQ(test::shown(uri), "map " + expected);
        EXPECT_STREQ(typeName(uri["port"]), "uint16");
        EXPECT_STREQ(typeName(uri["portSpecified"]), "bool");
        EXPECT_STREQ(typeName(uri["parameters"]), "map");
    }
}

TEST(ParseUri, TakesEachPieceFromItsPlace) {
    for (const auto& [text, expected] : test::readCases("uri.txt")) EXPECT_EQ(parts(text), expected) << text;
}

TEST(ParseUri, RefusesWithOneMessageAndAnEmptyRecord) {
    test::LogCapture log;
    for (const auto& [text, expected] : test::readCases("uri_refused.txt")) {
        korvo::Failure failure;
        EXPECT_EQ(parts(text, &failure), "refused") << text;
        EXPECT_EQ(failure.step, korvo::Step::Uri);
        std::string told;
        for (const test::LogLine& line : log.take())
            told += line.sourceFile + ", " + line.function + ", " + std::to_string(line.level) + ": " +
                    line.message;
        EXPECT_EQ(told + '|' + failure.reason, "src/uri, parseURI, 3: " + expected) << text;
    }
}

TEST(UriRecord, GettersPutTheirDefaultWhereNothingFits) {
    URI uri;
    uri["port"] = "80";
    uri["portSpecified"] = 1;
    uri["schema"] = 5;
    EXPECT_EQ(uri.host() + uri.schema(), "");
    EXPECT_EQ(uri.port(), 0);
    EXPECT_FALSE(uri.portSpecified());
    EXPECT_EQ(test::shown(uri), "map host=\nport=0\nportSpecified=0\nschema=");
    uri["port"] = -1;
    EXPECT_EQ(uri.port(), 65535);
    EXPECT_EQ(uri["port"], Variant(-1)) << "what fits badly is left";
    static_cast<Variant&>(uri) = 5;
    uri.schema("rtsp");
    EXPECT_EQ(test::shown(uri), "map schema=rtsp");
}

TEST(UriRecord, ComposesTheBaseFromMembers) {
    for (const auto& [text, base] : test::readCases("uri_bases.txt")) {
        URI uri;
        ASSERT_TRUE(parseURI(text, uri)) << text;
        EXPECT_EQ(uri.baseURI(), base) << text;
    }
    URI uri;
    EXPECT_EQ(uri.baseURI(), "");
    EXPECT_EQ(test::shown(uri), "map schema=");
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0", uri));
    uri["portSpecified"] = true;
    uri["port"] = "none";
    EXPECT_EQ(uri.baseURI(), "rtsp://cam:0/live/");
    uri["documentPath"] = "";
    EXPECT_EQ(uri.baseURI(), "");
}

TEST(UriRecord, DerivesSiblingsWithoutPuttingAnythingBetween) {
    URI uri;
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0?a=1&b=2", uri));
    EXPECT_EQ(uri.derivedURI("ch1", false), "rtsp://cam/live/ch1");
    EXPECT_EQ(uri.derivedURI("ch1?", true), "rtsp://cam/live/ch1?a=1&b=2");
    EXPECT_EQ(uri.derivedURI("", true), "rtsp://cam/live/a=1&b=2");
    URI empty;
    EXPECT_EQ(empty.derivedURI("doc", false), "doc");
    EXPECT_EQ(test::shown(empty), "map fullParameters=\nschema=");
}

TEST(PercentDecode, DecodesEscapesOnceAndLeavesTheRest) {
    for (const auto& [text, decoded] : test::readCases("percent_escapes.txt"))
        EXPECT_EQ(percentDecode(text), decoded) << text;
}

TEST(UriFromString, ResolvesTheHostOnlyWhenAskedTo) {
    test::LogCapture log;
    askedHosts.clear();
    korvo::Failure failure;
    const auto addressOf = [&failure](const char* text, bool resolve) {
        URI uri;
        const bool done = URI::FromString(text, resolve, uri, &failure);
        return done ? test::shown(uri["ip"]) : uri == Variant() ? "refused" : "refused, but not empty";
    };
    EXPECT_EQ(addressOf("http://unknown/", false), "string ");
    EXPECT_EQ(addressOf("file:///x", true), "string ");
    EXPECT_EQ(addressOf("nonsense", true), "refused");
    EXPECT_EQ(failure.step, korvo::Step::Uri);
    EXPECT_EQ(addressOf("http://unknown/", true), "refused");
    EXPECT_EQ(failure.step, korvo::Step::Resolve);
    EXPECT_EQ(failure.subject, "unknown");
    EXPECT_EQ(addressOf("http://known/", true), "string 192.0.2.1");
    EXPECT_EQ(failure.step, korvo::Step::None);
    EXPECT_EQ(failure.subject, "") << "of the call before";
    EXPECT_THAT(askedHosts, ElementsAre("unknown", "known"));
    EXPECT_EQ(log.messages(), "Unable to determine schema|Unable to resolve host: unknown");
}

}  // namespace
