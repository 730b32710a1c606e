#include "platform/UriUtil.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace {

struct Accepted {
    const char* uri;
    const char* scheme;
    const char* host;
    unsigned int port;
    const char* path;
};

// Test names show the URI.
void PrintTo(const Accepted& c, std::ostream* out) {
    *out << c.uri;
}

class UriUtilAccepts : public ::testing::TestWithParam<Accepted> {};

TEST_P(UriUtilAccepts, splitsIntoSchemeHostPortAndPath) {
    const Accepted& c = GetParam();
    String scheme;
    String host;
    unsigned int port = 12345;
    String path = "old";
    String error = "untouched";
    XCode result = UriUtil::splitUri(c.uri, scheme, host, port, path, error);
    ASSERT_TRUE(result.isSuccess()) << c.uri << ": " << error.c_str();
    EXPECT_EQ(scheme, String(c.scheme));
    EXPECT_EQ(host, String(c.host));
    EXPECT_EQ(port, c.port);
    EXPECT_EQ(path, String(c.path));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UriUtilAccepts,
    ::testing::Values(Accepted{"tftp://10.0.0.1/config/unit.cfg", "tftp", "10.0.0.1", 0,
                               "/config/unit.cfg"},
                      Accepted{"http://server:8080/a/b?x=1", "http", "server", 8080, "/a/b?x=1"},
                      Accepted{"HTTPS://Server.Example", "HTTPS", "Server.Example", 0, ""},
                      Accepted{"tftp://[::1]:69/file", "tftp", "[::1]", 69, "/file"},
                      Accepted{"tftp://[fe80::1%25eth0]/f", "tftp", "[fe80::1%25eth0]", 0, "/f"},
                      Accepted{"http://[::1]", "http", "[::1]", 0, ""},
                      Accepted{"http://host:65535/", "http", "host", 65535, "/"},
                      Accepted{"http://host:1/x", "http", "host", 1, "/x"},
                      Accepted{"tftp://host:069/x", "tftp", "host", 69, "/x"},
                      Accepted{"tftp://host/a/b.cfg;type=i", "tftp", "host", 0, "/a/b.cfg;type=i"},
                      Accepted{"ftp://host//double", "ftp", "host", 0, "//double"},
                      Accepted{"tftp://host/dir/", "tftp", "host", 0, "/dir/"}));

struct Refused {
    const char* name;
    std::string uri;
};

void PrintTo(const Refused& c, std::ostream* out) {
    *out << c.name;
}

class UriUtilRefuses : public ::testing::TestWithParam<Refused> {};

TEST_P(UriUtilRefuses, withAReasonAndUntouchedOutputs) {
    const Refused& c = GetParam();
    String scheme = "s";
    String host = "h";
    unsigned int port = 7;
    String path = "p";
    String error;
    XCode result =
        UriUtil::splitUri(String(c.uri.data(), c.uri.size()), scheme, host, port, path, error);
    ASSERT_TRUE(result.isErr()) << c.name;
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_FALSE(error.isEmpty());
    EXPECT_EQ(result.getString(), error);
    EXPECT_EQ(scheme, String("s"));
    EXPECT_EQ(host, String("h"));
    EXPECT_EQ(port, 7U);
    EXPECT_EQ(path, String("p"));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UriUtilRefuses,
    ::testing::Values(
        Refused{"noSchemeSeparator", "server/path"}, Refused{"singleSlash", "tftp:/server/path"},
        Refused{"emptyScheme", "://server/path"}, Refused{"emptyHost", "tftp:///path"},
        Refused{"emptyHostWithPort", "tftp://:69/path"}, Refused{"nothingAfterScheme", "tftp://"},
        Refused{"hostLikeAnOption", "tftp://-l/path"},
        Refused{"hostLikeALongOption", "http://--output-document=x/p"},
        Refused{"blankInHost", "tftp://ser ver/path"},
        Refused{"leadingBlank", "tftp:// server/path"},
        Refused{"tabInHost", "tftp://server\t/path"},
        Refused{"newlineInHost", "tftp://ser\nver/path"},
        Refused{"nulInHost", std::string("tftp://ser\0ver/path", 19)},
        Refused{"deleteInHost", "tftp://server\x7f/path"},
        Refused{"portZero", "tftp://server:0/path"},
        Refused{"portTooLarge", "tftp://server:65536/path"},
        Refused{"portHuge", "tftp://server:99999999999/path"},
        Refused{"portNotNumeric", "tftp://server:tftp/path"},
        Refused{"portWithSign", "tftp://server:+69/path"},
        Refused{"portNegative", "tftp://server:-1/path"},
        Refused{"portEmpty", "tftp://server:/path"},
        Refused{"portWithBlank", "tftp://server: 69/path"}, Refused{"bareIpv6", "tftp://::1/path"},
        Refused{"unterminatedIpv6", "tftp://[::1/path"},
        Refused{"textAfterIpv6", "tftp://[::1]x/path"}, Refused{"emptyIpv6", "tftp://[]/path"},
        Refused{"ipv6PortZero", "tftp://[::1]:0/path"},
        Refused{"ipv6PortEmpty", "tftp://[::1]:/path"},
        Refused{"blankInIpv6", "tftp://[:: 1]/path"}),
    [](const ::testing::TestParamInfo<Refused>& test) { return std::string(test.param.name); });

TEST(UriUtilTest, errorTextNamesTheReason) {
    String scheme;
    String host;
    unsigned int port = 0;
    String path;
    String error;
    EXPECT_TRUE(UriUtil::splitUri("tftp://-l/x", scheme, host, port, path, error).isErr());
    EXPECT_EQ(error, String("Invalid URI 'tftp://-l/x': host starts with '-'"));
    EXPECT_TRUE(UriUtil::splitUri("tftp://h:70000/x", scheme, host, port, path, error).isErr());
    EXPECT_EQ(error, String("Invalid URI 'tftp://h:70000/x': invalid port '70000'"));
    EXPECT_TRUE(UriUtil::splitUri("h/x", scheme, host, port, path, error).isErr());
    EXPECT_EQ(error, String("Invalid URI 'h/x': missing '://'"));
}

struct Built {
    const char* protocol;
    const char* host;
    unsigned int port;
    const char* path;
    const char* uri;
};

void PrintTo(const Built& c, std::ostream* out) {
    *out << c.uri;
}

class UriUtilBuilds : public ::testing::TestWithParam<Built> {};

TEST_P(UriUtilBuilds, withExactlyOneSlashBeforeThePath) {
    const Built& c = GetParam();
    EXPECT_EQ(UriUtil::buildUri(c.protocol, c.host, c.port, c.path), String(c.uri));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UriUtilBuilds,
    ::testing::Values(
        Built{"tftp", "10.0.0.1", 0, "/config/unit.cfg", "tftp://10.0.0.1/config/unit.cfg"},
        Built{"tftp", "10.0.0.1", 0, "config/unit.cfg", "tftp://10.0.0.1/config/unit.cfg"},
        Built{"tftp", "host", 69, "//twice", "tftp://host:69/twice"},
        Built{"http", "host", 8080, "", "http://host:8080/"},
        Built{"http", "host", 0, "/", "http://host/"},
        Built{"tftp", "[::1]", 6969, "f", "tftp://[::1]:6969/f"},
        Built{"tftp", "::1", 0, "/f", "tftp://[::1]/f"},
        Built{"https", "h", 443, "/a/b;type=i", "https://h:443/a/b;type=i"}));

TEST(UriUtilTest, builtUriSplitsBackIntoItsParts) {
    String uri = UriUtil::buildUri("tftp", "[::1]", 12345, "dir/file.cfg");
    String scheme;
    String host;
    unsigned int port = 0;
    String path;
    String error;
    ASSERT_TRUE(UriUtil::splitUri(uri, scheme, host, port, path, error).isSuccess());
    EXPECT_EQ(scheme, String("tftp"));
    EXPECT_EQ(host, String("[::1]"));
    EXPECT_EQ(port, 12345U);
    EXPECT_EQ(path, String("/dir/file.cfg"));
}

TEST(UriUtilTest, originNormalisesCaseAndDefaultPorts) {
    EXPECT_EQ(UriUtil::buildOrigin("HTTP", "Prov.Example", 0), String("http://prov.example:80"));
    EXPECT_EQ(UriUtil::buildOrigin("https", "h", 0), String("https://h:443"));
    EXPECT_EQ(UriUtil::buildOrigin("tftp", "h", 0), String("tftp://h:69"));
    EXPECT_EQ(UriUtil::buildOrigin("http", "::1", 8080), String("http://[::1]:8080"));
    String a;
    String b;
    ASSERT_TRUE(UriUtil::originOf("http://Host/a/manifest", a));
    ASSERT_TRUE(UriUtil::originOf("http://host:80/b/image.bin", b));
    EXPECT_EQ(a, b);
    ASSERT_TRUE(UriUtil::originOf("https://host/b", b));
    EXPECT_NE(a, b);
    EXPECT_FALSE(UriUtil::originOf("no-scheme", b));
    EXPECT_EQ(b, String());
}

}  // namespace
