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
        EXPECT_EQ(uri["fullUriWithAuth"], text);
        EXPECT_STREQ(typeName(uri["port"]), "uint16");
        EXPECT_STREQ(typeName(uri["portSpecified"]), "bool");
        EXPECT_STREQ(typeName(uri["parameters"]), "map");
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
        std::string told;
        for (const test::LogLine& line : log.take())
            told +=
                line.sourceFile + ' ' + line.function + ' ' + std::to_string(line.level) + ' ' + line.message;
        EXPECT_EQ(told + '|' + failure.reason, "src/uri parseURI 3 " + expected);
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
    EXPECT_EQ(test::shown(uri),
              "map document=5\ndocumentWithFullParameters=6\nhost=4\noriginalUri=1\nschema=2\nuserName=3");
    uri["port"] = -1;
    uri["portSpecified"] = 1;
    uri["schema"] = 2;
    EXPECT_EQ(uri.port(), 65535);
    EXPECT_EQ(uri["port"], Variant(-1)) << "what fits badly is left";
    EXPECT_EQ(uri.schema() + uri.userName() + uri.password() + uri.host() + uri.documentPath(), "34");
    EXPECT_FALSE(uri.portSpecified());
    EXPECT_EQ(uri["schema"], Variant(""));
}

TEST(UriRecord, ComposesOtherUrisWithoutPuttingAnythingBetween) {
    URI uri = parsed("rtsp://cam/live/ch0?a=1&b=2"), empty;
    EXPECT_EQ(uri.derivedURI("ch1", false), "rtsp://cam/live/ch1");
    EXPECT_EQ(uri.derivedURI("ch1?", true), "rtsp://cam/live/ch1?a=1&b=2");
    EXPECT_EQ(empty.derivedURI("doc", false), "doc");
    EXPECT_EQ(test::shown(empty), "map fullParameters=\nschema=") << "more defaults than the steps asked for";
    uri["portSpecified"] = true;
    uri["port"] = "none";
    EXPECT_EQ(uri.baseURI(), "rtsp://cam:0/live/");
    uri["documentPath"] = "";
    EXPECT_EQ(uri.baseURI(), "");
}

TEST(PercentDecode, DecodesEscapesOnceAndLeavesTheRest) {
    for (const auto& [text, decoded] : test::readCases("percent_escapes.txt")) {
        EXPECT_EQ(percentDecode(text), decoded);
    }
}

TEST(UriFromString, ResolvesTheHostOnlyWhenAskedTo) {
    test::LogCapture log;
    askedHosts.clear();
    korvo::Failure failure;
    const auto addressOf = [&failure](const char* text, bool resolve) {
        URI uri;
        const bool done = URI::FromString(text, resolve, uri, &failure);
        return done ? test::shown(uri["ip"]) : test::shown(uri) + ' ' + failure.subject;
    };
    EXPECT_EQ(addressOf("http://unknown/", false), "string ");
    EXPECT_EQ(addressOf("file:///x", true), "string ");
    EXPECT_EQ(addressOf("nonsense", true), "null ");
    EXPECT_EQ(addressOf("http://unknown/", true), "null unknown");
    EXPECT_EQ(failure.step, korvo::Step::Resolve);
    EXPECT_EQ(addressOf("http://known/", true), "string 192.0.2.1");
    EXPECT_EQ(failure.step, korvo::Step::None);
    EXPECT_EQ(failure.subject, "") << "of the call before";
    EXPECT_THAT(askedHosts, testing::ElementsAre("unknown", "known"));
    EXPECT_EQ(log.messages(), "Unable to determine schema|Unable to resolve host: unknown");
}

}  // namespace
