#include "korvo/variant_utils/uri.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvo/utils/host.h"
#include "support/cases.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;
using namespace std::string_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> askedHosts;

/** schema|userName|password|host|port|portSpecified|documentPath|document */
std::string parts(const std::string& text) {
    URI uri;
    uri["stale"] = 1;
    if (!parseURI(text, uri)) return VariantType(uri) == TypeNull ? "refused" : "refused, but not empty";
    const std::string& folder = uri["documentPath"];
    const std::string& document = uri["document"];
    EXPECT_EQ(uri["fullDocumentPath"], Variant(folder + document));
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

TEST(ParseUri, FillsEveryMember) {
    URI uri;
    uri["stale"] = 1;
    ASSERT_TRUE(parseURI(" rtsp://user:pw:2@10.0.0.2:8554/live/ch0?a=1&b&&=2&c=x=y&a=3 \n", uri));
    URI expected;
    const std::string whole = "rtsp://user:pw:2@10.0.0.2:8554/live/ch0?a=1&b&&=2&c=x=y&a=3";
    expected["originalUri"] = whole;
    expected["fullUri"] = "rtsp://10.0.0.2:8554/live/ch0?a=1&b&&=2&c=x=y&a=3";
    expected["fullUriWithAuth"] = " " + whole + " \n";
    expected["schema"] = "rtsp";
    expected["userName"] = "user";
    expected["password"] = "pw:2";
    expected["host"] = "10.0.0.2";
    expected["port"] = static_cast<unsigned short>(8554);
    expected["portSpecified"] = true;
    expected["fullDocumentPathWithParameters"] = "/live/ch0?a=1&b&&=2&c=x=y&a=3";
    expected["fullDocumentPath"] = "/live/ch0";
    expected["fullParameters"] = "a=1&b&&=2&c=x=y&a=3";
    expected["documentPath"] = "/live/";
    expected["document"] = "ch0";
    expected["documentWithFullParameters"] = "ch0?a=1&b&&=2&c=x=y&a=3";
    expected["parameters"]["a"] = "3";
    expected["parameters"]["b"] = "";
    expected["parameters"]["c"] = "x=y";
    EXPECT_EQ(uri, expected);
}

TEST(ParseUri, TakesEachPieceFromItsPlace) {
    for (const auto& [text, expected] : test::readCases("uri.txt")) EXPECT_EQ(parts(text), expected) << text;
    URI uri;
    ASSERT_TRUE(parseURI("http://10.0.0.1?x= 1 ", uri));
    EXPECT_EQ(uri["fullDocumentPathWithParameters"], Variant("/?x= 1"));
    EXPECT_EQ(uri["documentWithFullParameters"], Variant("?x= 1"));
    ASSERT_TRUE(parseURI(" http://@h/x ", uri));
    EXPECT_EQ(uri["fullUri"], Variant("http://h/x"));
    ASSERT_TRUE(parseURI(" http://h/x ", uri));
    EXPECT_EQ(uri["fullUri"], Variant(" http://h/x "));
}

TEST(ParseUri, RefusesWithOneMessageAndAnEmptyRecord) {
    test::LogCapture log;
    for (const auto& [text, message] : test::readCases("uri_refused.txt")) {
        EXPECT_EQ(parts(text), "refused") << text;
        const auto lines = log.take();
        ASSERT_EQ(lines.size(), 1U) << text;
        EXPECT_EQ(lines[0].message, message);
        EXPECT_EQ(lines[0].sourceFile + ' ' + lines[0].function + ' ' + std::to_string(lines[0].level),
                  "src/uri parseURI 3");
    }
}

TEST(ParseUri, FirstUseFromManyThreadsNeedsNoCare) {
    std::vector<std::thread> threads;
    std::vector<int> ports(8);
    for (std::size_t i = 0; i < ports.size(); ++i) {
        threads.emplace_back([&ports, i] {
            URI uri;
            if (parseURI("rtmpe://h/", uri)) ports[i] = uri.port();
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_THAT(ports, testing::Each(1935));
}

TEST(UriRecord, GettersPutTheirDefaultWhereNothingFits) {
    URI uri;
    EXPECT_EQ(uri.host(), "");
    Variant expected;
    expected["host"] = "";
    EXPECT_EQ(uri, expected);
    uri["port"] = "80";
    uri["portSpecified"] = 1;
    uri["schema"] = 5;
    EXPECT_EQ(uri.port(), 0);
    EXPECT_FALSE(uri.portSpecified());
    EXPECT_EQ(uri.schema(), "");
    expected["port"] = 0;
    expected["portSpecified"] = false;
    expected["schema"] = "";
    EXPECT_EQ(uri, expected);
    uri["port"] = -1;
    EXPECT_EQ(uri.port(), 65535);
    EXPECT_EQ(uri["port"], Variant(-1));

    static_cast<Variant&>(uri) = 5;
    uri.schema("rtsp");
    uri.userName("u");
    Variant map;
    map["schema"] = "rtsp";
    map["userName"] = "u";
    EXPECT_EQ(uri, map);
}

TEST(UriRecord, ComposesTheBaseFromMembers) {
    const std::pair<const char*, const char*> rows[] = {
        {"RTSP://admin:pw@cam:554/live/ch0?a=1", "rtsp://admin:pw@cam:554/live/"},
        {"rtsp://admin@cam/live/", "rtsp://cam/live/"},
        {"rtsp://:pw@cam", "rtsp://cam/"},
        {"rtsp://cam?x", "rtsp://cam/"},
        {"file:///etc/x", ""},
        {"http://u:p@:80/", ""},
        {"://cam:80/x", ""}};
    for (const auto& [text, base] : rows) {
        URI uri;
        ASSERT_TRUE(parseURI(text, uri)) << text;
        EXPECT_EQ(uri.baseURI(), base) << text;
    }
    URI empty;
    EXPECT_EQ(empty.baseURI(), "");
    Variant onlySchema;
    onlySchema["schema"] = "";
    EXPECT_EQ(empty, onlySchema);
    URI noPort;
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0", noPort));
    noPort["portSpecified"] = true;
    noPort["port"] = "none";
    EXPECT_EQ(noPort.baseURI(), "rtsp://cam:0/live/");
}

TEST(UriRecord, DerivesSiblingsWithoutPuttingAnythingBetween) {
    URI uri;
    ASSERT_TRUE(parseURI("rtsp://cam/live/ch0?a=1&b=2", uri));
    EXPECT_EQ(uri.derivedURI("ch1", false), "rtsp://cam/live/ch1");
    EXPECT_EQ(uri.derivedURI("ch1?", true), "rtsp://cam/live/ch1?a=1&b=2");
    EXPECT_EQ(uri.derivedURI("", true), "rtsp://cam/live/a=1&b=2");
    URI empty;
    EXPECT_EQ(empty.derivedURI("doc", false), "doc");
    EXPECT_NE(empty.GetKeyChain(TypeString, "fullParameters", false), nullptr);
}

TEST(UriFromString, ResolvesTheHostOnlyWhenAskedTo) {
    test::LogCapture log;
    URI uri;
    askedHosts.clear();
    EXPECT_TRUE(URI::FromString("http://unknown/", false, uri));
    EXPECT_EQ(uri["ip"], Variant(""));
    EXPECT_TRUE(URI::FromString("file:///x", true, uri));
    EXPECT_EQ(uri["ip"], Variant(""));
    EXPECT_FALSE(URI::FromString("nonsense", true, uri));
    EXPECT_EQ(VariantType(uri), TypeNull);
    EXPECT_THAT(askedHosts, IsEmpty());
    EXPECT_TRUE(URI::FromString("http://known/", true, uri));
    EXPECT_EQ(uri["ip"], Variant("192.0.2.1"));
    log.take();

    EXPECT_FALSE(URI::FromString("http://unknown/", true, uri));
    EXPECT_EQ(VariantType(uri), TypeNull);
    const auto lines = log.take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].function + ": " + lines[0].message, "FromString: Unable to resolve host: unknown");
    EXPECT_THAT(askedHosts, ElementsAre("known", "unknown"));
}

}  // namespace
