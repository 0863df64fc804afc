// The console's web server as a client meets it that is no browser: too large, too slow, half. Each test runs
// in a set of its own and speaks to the set's platformd over TCP.

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "norlog.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

namespace fs = std::filesystem;

constexpr std::chrono::seconds kPatience{30};
constexpr size_t kMebibyte = size_t{1} << 20;
constexpr size_t kLittle = 24 * kMebibyte; // by which a service may grow that keeps nothing

std::string lineOf(const char* path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// "127.0.0.1:PORT"
std::string host()
{
    const std::string url = lineOf("/run/console.url");
    return url.substr(7, url.size() - 8);
}

int findPlatform()
{
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        if (lineOf((entry.path() / "comm").c_str()) == "platformd") {
            return std::stoi(entry.path().filename());
        }
    }
    return 0;
}

// What platformd holds in memory, in bytes.
size_t memoryOfPlatform()
{
    std::ifstream file("/proc/" + std::to_string(findPlatform()) + "/statm");
    size_t all = 0;
    size_t resident = 0;
    file >> all >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

auto countOpenFiles()
{
    const std::string files = "/proc/" + std::to_string(findPlatform()) + "/fd";
    return std::distance(fs::directory_iterator(files), fs::directory_iterator());
}

bool isFileIn(const char* directory)
{
    return std::any_of(fs::recursive_directory_iterator(directory), fs::recursive_directory_iterator(),
                       [](const fs::directory_entry& entry) { return entry.is_regular_file(); });
}

template <typename Condition>
bool comesTrue(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

class Connection
{
public:
    Connection() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(host().substr(host().find(':') + 1))));
        const timeval limit{kPatience.count(), 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    ~Connection() { close(socket_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // False when the other side has had enough.
    bool send(const std::string& text) const
    {
        for (size_t at = 0; at < text.size();) {
            const ssize_t size = ::send(socket_, text.data() + at, text.size() - at, MSG_NOSIGNAL);
            if (size <= 0) {
                return false;
            }
            at += static_cast<size_t>(size);
        }
        return true;
    }

    // A request as the console's own page makes it; `more` are further header lines.
    void begin(const std::string& line, const std::string& more) const
    {
        send(line + " HTTP/1.1\r\nHost: " + host() + "\r\nOrigin: http://" + host() + "\r\n" + more + "\r\n");
    }

    // What comes until `end` is part of it, or until the connection ends.
    std::string receiveUntil(const std::string& end) const
    {
        std::string text;
        char block[4096];
        ssize_t size = 0;
        while (text.find(end) == std::string::npos && (size = recv(socket_, block, sizeof block, 0)) > 0) {
            text.append(block, static_cast<size_t>(size));
        }
        return text;
    }
    std::string receiveHead() const { return receiveUntil("\r\n\r\n"); }
    // Until the other side has said its last; empty when it does not come to that.
    std::string receiveAll() const
    {
        std::string text;
        char block[4096];
        ssize_t size = 0;
        while ((size = recv(socket_, block, sizeof block, 0)) > 0) {
            text.append(block, static_cast<size_t>(size));
        }
        return size == 0 ? text : "";
    }

    bool isClosed() const
    {
        char block[65536];
        const ssize_t size = recv(socket_, block, sizeof block, MSG_DONTWAIT);
        return size == 0 || (size < 0 && errno != EAGAIN);
    }

private:
    int socket_;
};

void openPage(const Connection& page)
{
    page.begin("GET /socket", "Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
                              "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n");
    EXPECT_THAT(page.receiveHead(), HasSubstr("101"));
}

// Masked, as a client's frames must be, by zeros.
std::string frameOf(const std::string& text)
{
    const bool isShort = text.size() < 126;
    std::string frame = "\x81";
    frame += static_cast<char>(0x80 | (isShort ? text.size() : 126));
    if (!isShort) {
        EXPECT_LE(text.size(), 0xffffU);
        frame += static_cast<char>(text.size() >> 8);
        frame += static_cast<char>(text.size() & 0xff);
    }
    return frame + std::string(4, '\0') + text;
}

void beginStick(const Connection& page)
{
    page.send(frameOf(R"({"id": 1, "do": "usb-begin"})"));
    EXPECT_THAT(page.receiveUntil("\"type\":\"reply\"}"), HasSubstr("\"error\":null"));
}

std::string chunk(size_t size)
{
    char length[32];
    snprintf(length, sizeof length, "%zx\r\n", size);
    return length + std::string(size, 'x') + "\r\n";
}

class WebServer : public testing::Test
{
protected:
    const size_t before_ = memoryOfPlatform();
    size_t growth() const { return memoryOfPlatform() - std::min(before_, memoryOfPlatform()); }
};

} // namespace

TEST_F(WebServer, AFileThatIsTooLargeIsRefusedAtItsHeader)
{
    const Connection client;
    client.begin("PUT /usb/large.bin", "Content-Length: 1073741824\r\nExpect: 100-continue\r\n");
    EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 413"));
    EXPECT_FALSE(isFileIn("/opt/media"));
}

// Not when all of it has come, or never: nothing of a body is sent here.
TEST_F(WebServer, WhatIsRefusedIsAnsweredAtItsHeaderAndTheConnectionEnds)
{
    const std::pair<const char*, const char*> cases[] = {
        {"Content-Length: 300000000", "413"},
        {"Content-Length: -1", "400"},
        {"Content-Length: 5, 5", "400"},
        {"Content-Length: +5", "400"},
        {"Content-Length:", "400"},
        {"Content-Length: 99999999999999999999999", "400"},
        {"Content-Length: 5\r\nContent-Length: 500000000", "400"},
    };
    const auto before = countOpenFiles();
    for (const auto& [header, status] : cases) {
        const Connection client;
        client.begin("PUT /usb/f.bin", std::string(header) + "\r\n");
        const std::string answer = client.receiveAll();
        EXPECT_THAT(answer, StartsWith(std::string("HTTP/1.1 ") + status)) << header;
    }
    EXPECT_TRUE(comesTrue([before] { return countOpenFiles() <= before; }));
    const Connection foreign;
    foreign.send("PUT /usb/f.bin HTTP/1.1\r\nHost: elsewhere\r\nTransfer-Encoding: chunked\r\n\r\n");
    EXPECT_THAT(foreign.receiveAll(), AllOf(StartsWith("HTTP/1.1 403"), HasSubstr("and nothing else.\n")));
    EXPECT_FALSE(isFileIn("/opt/media"));
}

TEST_F(WebServer, ABodyThatComesAllTheSameIsNotTakenIntoMemory)
{
    const Connection client;
    const std::string block(kMebibyte, 'x');
    client.begin("PUT /usb/large.bin", "Content-Length: " + std::to_string(300 * kMebibyte) + "\r\n");
    size_t most = 0;
    for (int count = 0; count < 300 && client.send(block); ++count) {
        most = std::max(most, growth());
    }
    EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 413"));
    EXPECT_LT(most, kLittle);
    EXPECT_FALSE(isFileIn("/opt/media"));
}

TEST_F(WebServer, NothingOfAForeignRequestIsTakenIntoMemory)
{
    const std::string block(kMebibyte, 'x');
    for (const char* method : {"GET /", "PUT /usb/a", "POST /"}) {
        const Connection client;
        client.send(std::string(method) + " HTTP/1.1\r\nHost: elsewhere\r\nContent-Length: " +
                    std::to_string(100 * kMebibyte) + "\r\n\r\n");
        for (int count = 0; count < 100 && client.send(block); ++count) {
        }
        EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 403")) << method;
    }
    EXPECT_LT(growth(), kLittle);
}

TEST_F(WebServer, AFileIsStreamedToTheStickAndThereOnceItIsWhole)
{
    const Connection page;
    openPage(page);
    beginStick(page);
    const Connection client;
    const std::string block(kMebibyte, 'x');
    client.begin("PUT /usb/inside/of%20a/file.bin",
                 "Content-Length: " + std::to_string(64 * kMebibyte) + "\r\n");
    for (int count = 0; count < 63; ++count) {
        ASSERT_TRUE(client.send(block));
    }
    EXPECT_FALSE(fs::exists("/opt/media/.stick-unfinished/inside"));
    ASSERT_TRUE(client.send(block));
    EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 204"));
    EXPECT_EQ(fs::file_size("/opt/media/.stick-unfinished/inside/of a/file.bin"), 64 * kMebibyte);
    EXPECT_LT(growth(), kLittle);
}

TEST_F(WebServer, AFileInChunksEndsAtTheLimit)
{
    const Connection page;
    openPage(page);
    beginStick(page);
    const Connection client;
    client.begin("PUT /usb/endless.bin", "Transfer-Encoding: chunked\r\n");
    const std::string block = chunk(kMebibyte);
    for (int count = 0; count < 300 && client.send(block); ++count) {
    }
    EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 413"));
    EXPECT_LT(growth(), kLittle);
    EXPECT_FALSE(isFileIn("/opt/media"));
}

TEST_F(WebServer, NothingIsLeftOfAFileThatEndsHalfWay)
{
    const Connection page;
    openPage(page);
    beginStick(page);
    {
        const Connection client;
        client.begin("PUT /usb/half.bin", "Content-Length: " + std::to_string(2 * kMebibyte) + "\r\n");
        client.send(std::string(kMebibyte, 'x'));
        EXPECT_TRUE(comesTrue([] { return isFileIn("/opt/media"); }));
    }
    EXPECT_TRUE(comesTrue([] { return !isFileIn("/opt/media"); }));
}

TEST_F(WebServer, ANameThatLeadsOutOfTheStickIsRefused)
{
    for (const char* name : {"..%2f..%2fetc", "a/%2e%2e/%2e%2e/b", "", "a/%01/b", "1/2/3/4/5/6/7/8/9"}) {
        const Connection client;
        client.begin(std::string("PUT /usb/") + name, "Content-Length: 1\r\n");
        client.send("x");
        EXPECT_THAT(client.receiveHead(), StartsWith("HTTP/1.1 4")) << name;
    }
    EXPECT_FALSE(isFileIn("/opt/media"));
}

TEST_F(WebServer, APageThatDoesNotReadIsDisconnectedAndOneThatReadsStays)
{
    const Connection deaf;
    openPage(deaf);
    const Connection reading;
    openPage(reading);
    bool isEnded = false;
    std::thread reader([&] {
        reading.receiveUntil("the last record");
        isEnded = reading.isClosed();
    });
    const std::string text(4000, 'x');
    const auto isOpen = [&] {
        return lineOf("/var/log/platformd.out").find("does not read") == std::string::npos;
    };
    for (int count = 0; count < 20000 && isOpen(); ++count) {
        __norlog_print(2, 4, "T", "%s", text.c_str());
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    EXPECT_FALSE(isOpen());
    EXPECT_LT(growth(), 3 * kLittle); // with the 4000 records that are kept for any page
    __norlog_print(2, 4, "T", "the last record");
    reader.join();
    EXPECT_FALSE(isEnded);
}

TEST_F(WebServer, APageHearsWhatALateWriterWritesToALogThatWasMovedAway)
{
    const Connection page;
    openPage(page);
    __norlog_print(2, 4, "T", "before");
    EXPECT_THAT(page.receiveUntil("before"), HasSubstr("before"));
    std::ofstream late("/var/log/platform.log", std::ios::app);
    ASSERT_EQ(rename("/var/log/platform.log", "/var/log/platform.log.1"), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the writer below has noticed by then
    __norlog_print(2, 4, "T", "in the new file");
    late << "2026-01-31T12:00:00.000000Z\t2\t4\tT\t1\t1\tn\t\t\t\tin the old file\n" << std::flush;
    const std::string news = page.receiveUntil("in the new file");
    EXPECT_THAT(news, HasSubstr("in the old file"));
}

TEST_F(WebServer, ASetWithoutAClockSaysSo)
{
    const Connection page;
    openPage(page);
    page.send(frameOf(R"({"id": 1, "do": "clock-jump", "seconds": 600})"));
    EXPECT_THAT(page.receiveUntil("\"type\":\"reply\"}"), HasSubstr("runs without a clock"));
}

TEST_F(WebServer, NoOrderOfAPageEndsThePlatform)
{
    const int platform = findPlatform();
    const std::string deep = std::string(2000, '[') + std::string(2000, ']');
    const std::string orders[] = {deep,
                                  R"({"id": 1, "do": "click", "button": )" + deep + "}",
                                  R"({"do": )" + std::string(5000, '{'),
                                  "",
                                  "null",
                                  "[]",
                                  R"({"do": {}, "id": {}})",
                                  R"({"do": "power", "state": 1e999})",
                                  R"({"do": "power", "state": 99999999999})",
                                  R"({"do": "ui", "behaviour": 1, "after": -1})",
                                  R"({"do": "click", "button": null})",
                                  R"({"do": "mirroring", "on": {"a": 1}})",
                                  R"({"do": "factory\u0000"})",
                                  R"({"do": "usb-insert", "id": "\ud800"})"};
    const Connection page;
    openPage(page);
    for (const std::string& order : orders) {
        page.send(frameOf(order));
        EXPECT_THAT(page.receiveUntil("\"type\":\"reply\"}"), HasSubstr("\"error\":")) << order.substr(0, 60);
    }
    EXPECT_EQ(findPlatform(), platform);
    EXPECT_FALSE(page.isClosed());
}
