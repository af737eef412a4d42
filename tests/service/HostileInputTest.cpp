// After any bytes from a client, the service still serves the next client.

#include <gtest/gtest.h>

#include <string>

#include "support/ServiceTesting.h"

using namespace servicetesting;

namespace {

struct BytesRow {
    const char* name;
    std::string bytes;
    const char* status;  // start of the response on a connection without TLS; empty: a response is optional
};

std::ostream& operator<<(std::ostream& stream, const BytesRow& row) {
    return stream << row.name;
}

std::string repeated(const std::string& text, size_t times) {
    std::string result;
    while (times-- > 0) {
        result += text;
    }
    return result;
}

const std::string kTarget = targetOf(addRelayBody());
const std::string kHead = "POST " + kTarget + " HTTP/1.1\r\nHost: localhost\r\n";

// 8 KB for which a parser with backtracking would need many seconds.
std::string costlyMultipart() {
    const std::string body = "--x\r\nContent-Disposition: form-data; name=\"" +
                             repeated("\";filename=\"\";filename*=", 300) + " x\r\n\r\n\r\n--x--\r\n";
    return "POST /faults HTTP/1.1\r\nHost: evil.test\r\nContent-Type: multipart/form-data; boundary=x\r\n" +
           ("Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

void expectService(RunningService& service) {
    EXPECT_EQ(0, service.post(addRelayBody())["code"]);
}

class HostileBytes : public testing::TestWithParam<BytesRow> {};

}  // namespace

TEST_P(HostileBytes, AreSurvivedOnAPlainConnection) {
    RunningService service(plainOptions());
    RawConnection connection(service->port());
    connection.send(GetParam().bytes);
    const std::string status = GetParam().status;
    if (status.rfind("HTTP/1.1 4", 0) != 0) {  // after a 4xx, the service itself closes the connection
        connection.endSending();
    }
    const std::string response = connection.readToEnd();
    EXPECT_EQ(0u, response.find(status)) << response.substr(0, 300);
    expectService(service);
}

TEST_P(HostileBytes, AreSurvivedWhereTlsIsExpected) {
    RunningService service;
    RawConnection connection(service->port());
    connection.send(GetParam().bytes);
    connection.endSending();
    EXPECT_EQ(std::string::npos, connection.readToEnd().find("HTTP/1.1 200"));
    expectService(service);
}

TEST_P(HostileBytes, AreSurvivedWithinTls) {
    RunningService service;
    RawConnection connection(service->port());
    RawTls tls(connection);
    ASSERT_TRUE(tls.handshake());
    tls.send(GetParam().bytes);
    connection.endSending();  // without close_notify
    connection.readToEnd();
    expectService(service);
}

const BytesRow kRows[] = {

    {"Nothing", "", ""},
    {"OneByte", "P", ""},
    {"Noise", std::string("\x00\xff\x16\x03\x01\x7f\x80\r\n\r\n", 11), ""},
    {"Nuls", std::string(100'000, '\0'), ""},
    {"HalfLine", "POST /v3/live", ""},
    {"HalfHead", kHead + "Content-Le", ""},
    {"HalfBody", kHead + "Content-Length: 100\r\n\r\n{\"interface\":", ""},
    {"NoMethod", " / HTTP/1.1\r\n\r\n", "HTTP/1.1 400"},
    {"StrangeMethod", "SMILE / HTTP/1.1\r\n\r\n", "HTTP/1.1 400"},
    {"StrangeVersion", "GET / HTTP/9.9\r\n\r\n", "HTTP/1.1 400"},
    {"ManyBlanks", "GET" + std::string(5000, ' ') + "/other HTTP/1.1\r\n\r\n", "HTTP/1.1 400"},
    {"LongTarget", "GET /" + std::string(8000, 'a') + " HTTP/1.1\r\n\r\n", "HTTP/1.1 404"},
    {"TooLongTarget", "GET /" + std::string(20'000, 'a') + " HTTP/1.1\r\n\r\n", "HTTP/1.1 414"},
    {"TargetOfSlashes", "GET " + std::string(8000, '/') + " HTTP/1.1\r\n\r\n", "HTTP/1.1 404"},
    {"TargetOfQuestionMarks", "GET " + std::string(8000, '?') + " HTTP/1.1\r\n\r\n", "HTTP/1.1 4"},
    {"TargetOfAmpersands", "POST " + kTarget + std::string(8000, '&') + " HTTP/1.1\r\nContent-Length: 0\r\n\r\n",
     "HTTP/1.1 200"},
    {"PercentAtTheEnd", "GET /%\r\n\r\n", "HTTP/1.1 400"},
    {"PercentNul", "GET /state%00 HTTP/1.1\r\n\r\n", "HTTP/1.1 404"},
    {"LongHeader", kHead + "X: " + std::string(20'000, 'x') + "\r\n\r\n", "HTTP/1.1 400"},
    {"EndlessLine", "GET / HTTP/1.1\r\nX: " + std::string(4'000'000, 'x'), ""},
    {"EndlessHeaders", kHead + repeated("X: y\r\n", 700'000), ""},
    {"HeaderWithoutColon", "GET /state HTTP/1.1\r\nHello\r\n\r\n", "HTTP/1.1 "},
    {"NegativeLength", kHead + "Content-Length: -1\r\n\r\n{}", "HTTP/1.1 4"},
    {"HugeLength", kHead + "Content-Length: 99999999999999999999\r\n\r\n{}", ""},
    {"TooLongBody", kHead + "Content-Length: 4000000\r\n\r\n" + std::string(4'000'000, ' '), ""},
    {"TwoLengths", kHead + "Content-Length: 2\r\nContent-Length: 3\r\n\r\n{}", "HTTP/1.1 400"},
    {"TheSameLengthTwice", kHead + "Content-Length: 2\r\nContent-Length: 2\r\n\r\n{}", "HTTP/1.1 400"},
    {"LengthAndChunks", kHead + "Content-Length: 7\r\nTransfer-Encoding: chunked\r\n\r\n2\r\n{}\r\n0\r\n\r\n",
     "HTTP/1.1 400"},
    {"NoLength", kHead + "\r\n{}", "HTTP/1.1 411"},
    {"TwoHosts", kHead + "Host: localhost\r\nContent-Length: 2\r\n\r\n{}", "HTTP/1.1 400"},
    {"TwoOrigins", kHead + "Origin: http://localhost\r\nOrigin: http://evil.test\r\nContent-Length: 2\r\n\r\n{}",
     "HTTP/1.1 400"},
    {"TwoTransferEncodings", kHead + "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     "HTTP/1.1 400"},
    {"PackedTransfer", kHead + "Transfer-Encoding: gzip, chunked\r\n\r\n0\r\n\r\n", "HTTP/1.1 415"},
    {"BadChunks", kHead + "Transfer-Encoding: chunked\r\n\r\nxyz\r\n{}", ""},
    {"EndlessChunk", kHead + "Transfer-Encoding: chunked\r\n\r\nffffffffffffffff\r\n{}", ""},
    {"OneByteChunks", kHead + "Transfer-Encoding: chunked\r\n\r\n" + repeated("1\r\n \r\n", 800'000) + "0\r\n\r\n", ""},
    {"Multipart", kHead + "Content-Type: multipart/form-data; boundary=\"\"\r\nContent-Length: 6\r\n\r\n--\r\n--",
     "HTTP/1.1 415"},
    {"MultipartAnyCase", kHead + "content-type: Multipart/Mixed; boundary=x\r\nContent-Length: 5\r\n\r\n--x--",
     "HTTP/1.1 415"},
    {"CostlyMultipart", costlyMultipart(), "HTTP/1.1 415"},
    {"Form",
     kHead + "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 5\r\n\r\n%&=%=", "HTTP/1.1 200"},
    {"Expectation", kHead + "Expect: 100-continue\r\nContent-Length: 2\r\n\r\n{}", "HTTP/1.1 100"},
    {"Http2Preface", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", "HTTP/1.1 400"},
    {"TlsHelloCutShort", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11), ""},
    {"NulsInBody", kHead + "Content-Length: 6\r\n\r\n" + std::string("{\"\0\0\"}", 6), "HTTP/1.1 200"},
    {"DeepBody", kHead + "Content-Length: 1000000\r\n\r\n" + std::string(1'000'000, '['), "HTTP/1.1 200"},
    {"PackedBody", kHead + "Content-Encoding: gzip\r\nContent-Length: 2\r\n\r\n\x1f\x8b", "HTTP/1.1 415"},
};

INSTANTIATE_TEST_SUITE_P(Rows, HostileBytes, testing::ValuesIn(kRows), [](const auto& row) { return row.param.name; });

// ---- Ranges ---------------------------------------------------------------------------------------------------------

class HostileRange : public testing::TestWithParam<const char*> {};

TEST_P(HostileRange, IsIgnoredWhateverIsSent) {
    const std::string ranges[] = {"0-200000",
                                  "0-900000000",
                                  "1000-2000000000",
                                  "5-2,-0",
                                  "-1",
                                  "99999999999999999999999-",
                                  repeated("0-,", 2700) + "0-"};
    const bool isFault = *GetParam() != '\0';
    RunningService service(plainOptions());
    const auto exchange = [&](const std::string& field) {
        if (isFault) {
            EXPECT_EQ(200, service.client().post("/faults", GetParam()).status);
        }
        RawConnection connection(service->port());
        connection.send(isFault ? kHead + field + "Content-Length: 2\r\n\r\n{}"
                                : "GET /state HTTP/1.1\r\nHost: localhost\r\n" + field + "\r\n");
        connection.endSending();
        return connection.readToEnd();
    };
    const std::string whole = exchange("");
    EXPECT_EQ(0u, whole.find("HTTP/1.1 200"));
    for (const std::string& range : ranges) {
        EXPECT_EQ(whole, exchange("Range: bytes=" + range + "\r\n")) << range.substr(0, 100);
    }
    expectService(service);
}

INSTANTIATE_TEST_SUITE_P(Responses, HostileRange,
                         testing::Values("", R"({"kind":"cut"})", R"({"kind":"huge","size":100000})"));

// ---- Clients --------------------------------------------------------------------------------------------------------

TEST(HostileClient, DisconnectsDuringAHugeResponse) {
    RunningService service;
    for (int time = 0; time < 5; ++time) {
        ASSERT_TRUE(service->inject(*vexalive::parseFaultOption("huge=104857600")));
        RawConnection connection(service->port());
        RawTls tls(connection);
        ASSERT_TRUE(tls.handshake());
        tls.send(rawRequest("POST", kTarget, "{}"));
        EXPECT_GE(connection.read(100'000).size(), 100'000u);
    }
    expectService(service);
}
