// The floors of a request's work, measured inside the box in the same run as
// the methods (bench/method_costs.sh): what one program run, one HTTPS
// exchange, one file read, one file write and one privileged section cost
// when done the plainest way. Prints "NAME P50_MS P99_MS" lines.
//
//   farlink_floors WORD_PROGRAM CONF_FILE HTTPS_URL HTTP_URL SCRATCH_DIR ROUNDS
//   farlink_floors --lookup NAME ROUNDS
//   farlink_floors --run NAME ROUNDS PROGRAM [ARG...]   (a program run as the
//                                                      spawn floor's child is)
//   farlink_floors --relay URL ROUNDS                   (the relay library's
//                                                      exchange, as the module
//                                                      makes it)
#include <curl/curl.h>
#include <farlink/file_io.h>
#include <farlink/unique_fd.h>
#include <fcntl.h>
#include <json/reader.h>
#include <json/value.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <orvo/relayd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "critical_section.h"

extern char** environ;

namespace {

constexpr char kLogSource[] = "bench";
constexpr uid_t kNobody = 65534;

using Clock = std::chrono::steady_clock;

// posix_spawn of the program with its output on a pipe, read to its end,
// and the wait: what running a status command takes at the least.
bool SpawnAndRead(char* const argv[]) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    farlink::UniqueFd readEnd(fds[0]), writeEnd(fds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.Get(), STDOUT_FILENO);
    pid_t pid = 0;
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    writeEnd.Reset();
    if (error != 0) return false;
    char buffer[64];
    while (read(readEnd.Get(), buffer, sizeof buffer) > 0) {
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

struct CurlGlobal {
    CurlGlobal() { curl_global_init(CURL_GLOBAL_DEFAULT); }
    ~CurlGlobal() { curl_global_cleanup(); }
    CurlGlobal(const CurlGlobal&) = delete;
    CurlGlobal& operator=(const CurlGlobal&) = delete;
};

// The system's trust store, parsed once: libcurl would read and parse the
// whole CA bundle for every connection, which costs more than the
// handshake, and this libcurl caches it only when no CA directory is set.
X509_STORE* SystemTrustStore(CURL* probe) {
    static const std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> store = [probe] {
        std::unique_ptr<X509_STORE, void (*)(X509_STORE*)> loaded(X509_STORE_new(),
                                                                  X509_STORE_free);
        const char* bundle = nullptr;
        const char* directory = nullptr;
        curl_easy_getinfo(probe, CURLINFO_CAINFO, &bundle);
        curl_easy_getinfo(probe, CURLINFO_CAPATH, &directory);
        if (!loaded || bundle == nullptr || X509_STORE_load_file(loaded.get(), bundle) != 1 ||
            (directory != nullptr && X509_STORE_load_path(loaded.get(), directory) != 1)) {
            loaded.reset();
        }
        return loaded;
    }();
    return store.get();
}

CURLcode InstallStore(CURL*, void* context, void* store) {
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), static_cast<X509_STORE*>(store));
    return CURLE_OK;
}

// One POST on a new connection: name lookup, connection, for https a full
// TLS handshake with certificate checks against the system store (parsed
// once, as a client that makes many exchanges keeps it), request and answer.
class Exchange {
public:
    explicit Exchange(std::string url) : url_(std::move(url)) {
        curl_easy_setopt(curl_.get(), CURLOPT_URL, url_.c_str());
        curl_easy_setopt(curl_.get(), CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl_.get(), CURLOPT_HTTPHEADER, headers_.get());
        curl_easy_setopt(curl_.get(), CURLOPT_POSTFIELDS, kBody);
        curl_easy_setopt(curl_.get(), CURLOPT_WRITEFUNCTION, Discard);
        curl_easy_setopt(curl_.get(), CURLOPT_FRESH_CONNECT, 1L);
        curl_easy_setopt(curl_.get(), CURLOPT_FORBID_REUSE, 1L);
        curl_easy_setopt(curl_.get(), CURLOPT_SSL_SESSIONID_CACHE, 0L);
        curl_easy_setopt(curl_.get(), CURLOPT_DNS_CACHE_TIMEOUT, 0L);
        if (X509_STORE* store = SystemTrustStore(curl_.get())) {
            curl_easy_setopt(curl_.get(), CURLOPT_SSL_CTX_FUNCTION, InstallStore);
            curl_easy_setopt(curl_.get(), CURLOPT_SSL_CTX_DATA, store);
            curl_easy_setopt(curl_.get(), CURLOPT_CAINFO, nullptr);
            curl_easy_setopt(curl_.get(), CURLOPT_CAPATH, nullptr);
        }
    }
    bool operator()() const { return curl_ && curl_easy_perform(curl_.get()) == CURLE_OK; }

private:
    static constexpr char kBody[] = R"({"version":1,"command":"get_register_site"})";
    std::string url_;
    std::unique_ptr<CURL, void (*)(CURL*)> curl_{curl_easy_init(), curl_easy_cleanup};
    std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers_{
        curl_slist_append(nullptr, "Content-Type: application/json"), curl_slist_free_all};
};

// The relay library's own exchange, as the module makes it (a GET, which
// any web server answers).
bool RelayExchange(const std::string& url) {
    ORVO::Relay::Request request(url, Json::Value(Json::objectValue), false);
    return request.Send();
}

bool ReadConfiguration(const std::string& path) {
    std::ifstream in(path);
    Json::Value document;
    Json::CharReaderBuilder builder;
    return in && Json::parseFromStream(builder, in, &document, nullptr) && document.isObject();
}

bool WriteConfiguration(const std::string& path) {
    return farlink::WriteFileAtomically(path, "{\n  \"relay_tunnel\" : {\"enabled\" : true}\n}\n",
                                        0644);
}

// A and AAAA records of a name, as a name check asks the resolver.
bool Lookup(const char* name) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &found) != 0) return false;
    freeaddrinfo(found);
    return true;
}

// The module's own section, entered from the host's ids: four id switches
// and their trace lines to the system log.
bool PrivilegedSection() { return AS_ROOT(geteuid()) == 0; }

struct Floor {
    const char* name;
    std::function<bool()> once;
};

bool Measure(const Floor& floor, int rounds) {
    std::vector<double> ms;
    for (int i = 0; i < rounds; ++i) {
        const auto start = Clock::now();
        if (!floor.once()) {
            std::fprintf(stderr, "farlink_floors: %s failed\n", floor.name);
            return false;
        }
        ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    std::sort(ms.begin(), ms.end());
    std::printf("%s %.4f %.4f\n", floor.name, ms[ms.size() / 2], ms[ms.size() * 99 / 100]);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 4 && std::strcmp(argv[1], "--lookup") == 0 && std::atoi(argv[3]) > 0) {
        const char* name = argv[2];
        return Measure({"lookup", [name] { return Lookup(name); }}, std::atoi(argv[3])) ? 0 : 1;
    }
    if (argc >= 5 && std::strcmp(argv[1], "--run") == 0 && std::atoi(argv[3]) > 0) {
        char* const* program = argv + 4;
        return Measure({argv[2], [program] { return SpawnAndRead(program); }}, std::atoi(argv[3]))
                   ? 0
                   : 1;
    }
    if (argc == 4 && std::strcmp(argv[1], "--relay") == 0 && std::atoi(argv[3]) > 0) {
        const std::string url = argv[2];
        const CurlGlobal curlGlobal;
        return Measure({"relay", [&url] { return RelayExchange(url); }}, std::atoi(argv[3])) ? 0
                                                                                             : 1;
    }
    if (argc != 7 || std::atoi(argv[6]) < 1) {
        std::fprintf(
            stderr,
            "usage: farlink_floors WORD_PROGRAM CONF_FILE HTTPS_URL HTTP_URL SCRATCH_DIR ROUNDS\n"
            "       farlink_floors --lookup NAME ROUNDS\n"
            "       farlink_floors --run NAME ROUNDS PROGRAM [ARG...]\n"
            "       farlink_floors --relay URL ROUNDS\n");
        return 2;
    }
    char* const word[] = {argv[1], nullptr};
    const std::string conf = argv[2], httpsUrl = argv[3], httpUrl = argv[4];
    const std::string scratch = std::string(argv[5]) + "/floor.conf";
    const int rounds = std::atoi(argv[6]);
    const CurlGlobal curlGlobal;
    const Exchange https(httpsUrl), http(httpUrl);
    const Floor asRoot[] = {
        {"spawn", [&] { return SpawnAndRead(word); }},
        {"https", [&] { return https(); }},
        {"http", [&] { return http(); }},
        {"read", [&] { return ReadConfiguration(conf); }},
        {"write", [&] { return WriteConfiguration(scratch); }},
    };
    bool ok = true;
    for (const Floor& floor : asRoot) ok = Measure(floor, rounds) && ok;
    // The host's ids: a section starts from them, as it does in a request.
    if (setresgid(-1, kNobody, -1) != 0 || setresuid(-1, kNobody, -1) != 0) return 1;
    ok = Measure({"section", PrivilegedSection}, rounds) && ok;
    unlink(scratch.c_str());
    return ok ? 0 : 1;
}
