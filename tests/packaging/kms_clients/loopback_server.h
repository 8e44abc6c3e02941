#pragma once
// Starts loopback_server.py on 127.0.0.1 for one test and stops it at the end of the scope; throwaway TLS
// certificates made with the openssl command line in a temporary folder.
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <netinet/in.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "packaging/encryption/i_encryption_provider.h"
#include "packaging/encryption/protection_signalling.h"
#include "packaging/kms_clients/http_client.h"
#include "tests/common/boxes.h"
#include "tests/common/bytes.h"
#include "tests/common/loggers.h"
#include "tests/common/process.h"

namespace kmstest {
namespace enc = tvrn::encoding::packaging::encryption;
using enc::KeyUpdateResult;
using testkit::expectInOrder;
using testkit::hex;
constexpr std::uint64_t kSecond = 10'000'000;  // media time is in 100 ns units

class LoopbackServer {
public:
    explicit LoopbackServer(std::vector<std::string> extraArgs = {}) {
        int out[2];
        int in[2];
        if (pipe(out) != 0 || pipe(in) != 0) throw std::runtime_error("no pipe");
        std::vector<std::string> args = {KMS_TEST_PYTHON, KMS_TEST_SERVER};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        m_pid = fork();
        if (m_pid == 0) {
            dup2(out[1], 1);
            dup2(in[0], 0);
            close(out[0]);
            close(in[1]);
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        close(in[0]);
        m_stdin = in[1];
        // The first line, "PORT <n>", within ten seconds.
        std::string line;
        pollfd p{out[0], POLLIN, 0};
        while (line.find('\n') == std::string::npos && poll(&p, 1, 10000) > 0) {
            char c[64];
            const ssize_t n = read(out[0], c, sizeof c);
            if (n <= 0) break;
            line.append(c, static_cast<std::size_t>(n));
        }
        close(out[0]);
        if (line.rfind("PORT ", 0) != 0) {
            stop();
            throw std::runtime_error("the loopback server did not start: " + line);
        }
        port = std::stoi(line.substr(5));
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;
    ~LoopbackServer() { stop(); }

    std::string url(const std::string& scheme, const std::string& path, const std::string& host = "127.0.0.1") const {
        return scheme + "://" + host + ":" + std::to_string(port) + path;
    }

    int port = 0;

private:
    void stop() {
        if (m_stdin >= 0) close(m_stdin);
        m_stdin = -1;
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        m_pid = -1;
    }
    pid_t m_pid = -1;
    int m_stdin = -1;
};

// A port on 127.0.0.1 that nothing listens on (bound, then released).
inline int closedPort() {
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t size = sizeof address;
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
    close(s);
    return ntohs(address.sin_port);
}

// In a temporary folder: a CA (ca.pem), a server certificate it signed for 127.0.0.1 and localhost
// (server.pem, server.key), one it signed for another host only (other.pem, other.key), and a self-signed
// certificate for 127.0.0.1 (self.pem, self.key), and a client certificate it signed, in one PEM file with its key
// encrypted under kClientPassword (client-bundle.pem). Keys are made here and removed with the folder.
inline const std::string kClientPassword = "pw-SECRET-client";
class Certificates {
public:
    Certificates() {
        const std::string d = dir.path;
        const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        const std::string script =
            "cd " + d + " && set -e && "
            "openssl req -x509" + key + " -keyout ca.key -out ca.pem -days 1 -subj '/CN=kms test CA' && "
            "sign() { openssl req" + key + " -keyout $1.key -out $1.csr -subj \"/CN=$2\" && "
            "printf 'subjectAltName=%s\\n' \"$3\" > $1.ext && "
            "openssl x509 -req -in $1.csr -CA ca.pem -CAkey ca.key -CAcreateserial -out $1.pem -days 1 "
            "-extfile $1.ext; } && "
            "sign server localhost DNS:localhost,IP:127.0.0.1 && "
            "sign other other.invalid DNS:other.invalid && "
            "sign client kms-client DNS:client.invalid && "
            "openssl pkey -in client.key -aes256 -passout pass:" + kClientPassword + " -out client-enc.key && "
            "cat client-enc.key client.pem > client-bundle.pem && "
            "openssl req -x509" + key + " -keyout self.key -out self.pem -days 1 -subj /CN=localhost "
            "-addext subjectAltName=DNS:localhost,IP:127.0.0.1";
        int status = 0;
        testkit::run("bash -c \"" + escape(script) + "\" >/dev/null 2>&1", &status);
        if (status != 0) throw std::runtime_error("openssl could not make the test certificates");
    }
    std::string file(const std::string& name) const { return dir.file(name); }
    testkit::TempDir dir;

private:
    static std::string escape(const std::string& text) {
        std::string out;
        for (char c : text) {
            if (c == '"' || c == '\\' || c == '$') out += '\\';
            out += c;
        }
        return out;
    }
};

// The content key a provider holds, or no bytes.
inline testkit::Bytes keyOf(enc::IEncryptionProvider& p) {
    enc::ContentKey key{};
    return p.getContentKey(key) ? testkit::Bytes(key.begin(), key.end()) : testkit::Bytes();
}

// The key id a provider holds as files carry it, in hexadecimal, or "none".
inline std::string keyIdOf(enc::IEncryptionProvider& p) {
    enc::KeyId id{};
    if (!p.getKeyId(id)) return "none";
    const auto uuid = tvrn::encoding::packaging::imff::imff_box::keyIdToUuid(id);
    return testkit::hexText(testkit::Bytes(uuid.begin(), uuid.end()));
}

// The protection boxes a provider gives for DASH, written one after the other.
inline testkit::Bytes protectionBoxesOf(enc::IEncryptionProvider& p) {
    tvrn::encoding::packaging::imff::imff_box::BoxList boxes;
    p.getProtectionBoxes(boxes, true);
    return tvrn::encoding::packaging::imff::imff_box::binarizeBoxes(boxes);
}

// A provider with a key period of 0 connects and keeps the key of connect whatever the media time.
inline void expectOneKeyForEver(enc::IEncryptionProvider& p) {
    ASSERT_TRUE(p.connect());
    for (std::uint64_t s : {1u, 1000u, 1000000u}) EXPECT_EQ(p.updateKey(s * kSecond), KeyUpdateResult::Unchanged) << s;
}

// The key id a provider holds (as keyIdOf gives it) and its content key.
inline void expectKey(enc::IEncryptionProvider& p, const std::string& keyId, const testkit::Bytes& key) {
    EXPECT_EQ(keyIdOf(p), keyId);
    EXPECT_BYTES(keyOf(p), key);
}

// An address on 127.0.0.1 where nothing listens.
inline std::string downUrl(const std::string& path) { return "http://127.0.0.1:" + std::to_string(closedPort()) + path; }

// The body a GET of `url` is answered with (the scripted servers' records of calls and requests).
inline std::string fetch(const std::string& url) {
    std::string text;
    tvrn::encoding::packaging::kms_clients::HttpClient().get(url, &text);
    return text;
}

// A scripted server for one test, and the logger of the client under test.
struct Scripted {
    LoopbackServer server{{"--lifetime", "30", "--delay", "2"}};
    testkit::RecordingLogger logger;
    std::string url(const std::string& path) const { return server.url("http", path); }
    std::string get(const std::string& path) const { return fetch(url(path)); }
    // No line of the log holds any of `secrets`.
    void expectNotLogged(std::initializer_list<std::string> secrets) const {
        for (const std::string& line : logger.lines())
            for (const std::string& secret : secrets) EXPECT_EQ(line.find(secret), std::string::npos) << line;
    }
};

}  // namespace kmstest
