#include "korvo/variant_utils/uri.h"

#include <gmock/gmock.h>

#include "korvo/utils/host.h"
#include "korvo/utils/text.h"
#include "support/cases.h"
#include "support/log_capture.h"
#include "support/variant_printer.h"

using namespace korvo::variant;

namespace {

std::vector<std::string> askedHosts;

URI parsed(const std::string& text) {
    URI uri;
    uri["stale"] = 1;
    EXPECT_TRUE(parseURI(text, uri));
    return uri;
}

}  // namespace

// Stands in front of the utility library's own resolver.
std::string korvo::utils::getHostByName(const std::string& name) {
    askedHosts.push_back(name);
    return name == "known" ? "192.0.2.1" : "";
}

namespace {

TEST(ParseUri, TakesEachPieceFromItsPlace) {
    for (auto [text, expected] : test::readCases("uri.txt")) {
        URI uri = parsed(text);
        EXPECT_EQ(uri.Size(), 16);
        EXPECT_STREQ(typeName(uri["parameters"]), "map");
        EXPECT_EQ(uri["fullUriWithAuth"], text);
        uri["base"] = uri.baseURI();
        korvo::utils::replaceAll(expected, "\n", "");
        for (const std::string& field : test::fields(expected)) {
            const std::string name = field.substr(0, field.find('='));
            const std::string member = test::shown(*uri.GetKeyChain(TypeAny, name.c_str(), false));
            EXPECT_EQ(name + '=' + member.substr(member.find(' ') + 1), field);
        }
    }
}

TEST(ParseUri, RefusesWithOneMessageAndAnEmptyRecord) {
    for (const auto& [text, expected] : test::readCases("uri_refused.txt")) {
        test::LogCapture log;
        korvo::Failure failure;
        URI uri = parsed("http://h/");
        EXPECT_FALSE(parseURI(text, uri, &failure));
        EXPECT_EQ(uri, Variant());
        EXPECT_EQ(failure.step, korvo::Step::Uri);
        EXPECT_EQ(log.messages() + '|' + failure.reason, expected);
    }
}

TEST(UriRecord, SettersStoreTheirMemberAndGettersADefaultWhereNothingFits) {
    URI uri;
    static_cast<Variant&>(uri) = 5;
    uri.originalUri("1");
    uri.schema("2");
    uri.userName("3");
    uri.host("4");
    uri.document("5");
    uri.documentWithFullParameters("6");
    EXPECT_EQ(uri.schema() + uri.userName() + uri.password() + uri.host() + uri.documentPath(), "234");
    EXPECT_EQ(uri.port() + uri.portSpecified(), 0);
    EXPECT_EQ(test::shown(uri),
              "map document=5\ndocumentPath=\ndocumentWithFullParameters=6\nhost=4\noriginalUri=1\n"
              "password=\nport=0\nportSpecified=0\nschema=2\nuserName=3");
    uri["port"] = "mistyped";
    EXPECT_EQ(uri.port(), 0);
}

TEST(UriRecord, ComposesOtherUrisWithoutPuttingAnythingBetween) {
    URI uri = parsed("rtsp://cam/live/ch0?a=1&b=2"), empty;
    EXPECT_EQ(uri.derivedURI("ch1?", false), "rtsp://cam/live/ch1?");
    EXPECT_EQ(uri.derivedURI("ch1?", true), "rtsp://cam/live/ch1?a=1&b=2");
    EXPECT_EQ(empty.derivedURI("doc", false), "doc");
    EXPECT_EQ(test::shown(empty), "map fullParameters=\nschema=") << "more defaults than the steps asked for";
}

TEST(UriText, IsPercentDecodedOnceAndKeepsWhatIsNoEscape) {
    EXPECT_EQ(percentDecode("%70%C3%bC%7e a+b%20c%2540"), "p\xc3\xbc~ a+b c%40");
    EXPECT_EQ(percentDecode("%4g%g4%-1%+1% 1%%34%4"), "%4g%g4%-1%+1% 1%4%4");
}

TEST(UriFromString, ResolvesTheHostOnlyWhenAskedTo) {
    test::LogCapture log;
    korvo::Failure failure;
    URI uri;
    EXPECT_TRUE(URI::FromString("http://unknown/", false, uri) && uri["ip"] == "");
    EXPECT_TRUE(URI::FromString("file:///x", true, uri) && uri["ip"] == "");
    EXPECT_FALSE(URI::FromString("nonsense", true, uri));
    EXPECT_FALSE(URI::FromString("http://unknown/", true, uri, &failure));
    EXPECT_TRUE(uri == Variant() && failure.step == korvo::Step::Resolve && failure.subject == "unknown");
    EXPECT_TRUE(URI::FromString("http://known/", true, uri, &failure) && uri["ip"] == "192.0.2.1");
    EXPECT_EQ(failure.step, korvo::Step::None);
    EXPECT_THAT(askedHosts, testing::ElementsAre("unknown", "known"));
    EXPECT_EQ(log.messages(), "Unable to determine schema|Unable to resolve host: unknown");
}

}  // namespace
