// The admin page's files: what the host serves from its web root, and that
// nothing outside it, nor anything but a regular file, is ever served.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "host_harness.h"
#include "startup_error.h"
#include "static_files.h"

namespace farlink::host::test {
namespace {

namespace fs = std::filesystem;

// A web root with a page, a subfolder, and the things that must not be
// served: links out of it, a directory, a pipe, a hidden file. World-readable,
// as the host's front reads it with the service user's rights.
class WebRoot {
public:
    WebRoot() {
        char pattern[] = "/tmp/farlink-web-XXXXXX";
        base_ = mkdtemp(pattern);
        fs::permissions(base_, fs::perms::all & ~fs::perms::group_write & ~fs::perms::others_write);
        fs::create_directories(root() / "css");
        fs::create_directories(base_ / "outside");
        Write(root() / "index.html", "<p>page</p>");
        Write(root() / "app.js", "export {};");
        // A gzip twin as the build makes it, and one older than its file.
        Write(root() / "app.js.gz", "gzipped app");
        Write(root() / "index.html.gz", "stale");
        fs::last_write_time(root() / "index.html.gz",
                            fs::last_write_time(root() / "index.html") - std::chrono::hours(1));
        Write(root() / "css" / "style.css", "body {}");
        Write(root() / ".hidden", "hidden");
        Write(base_ / "outside" / "secret.txt", "secret");
        fs::create_symlink(base_ / "outside" / "secret.txt", root() / "secret.txt");
        fs::create_symlink(base_ / "outside", root() / "outside");
        mkfifo((root() / "pipe.js").c_str(), 0644);
    }
    ~WebRoot() { fs::remove_all(base_); }
    WebRoot(const WebRoot&) = delete;
    WebRoot& operator=(const WebRoot&) = delete;

    fs::path root() const { return base_ / "web"; }

private:
    static void Write(const fs::path& path, const std::string& text) {
        std::ofstream(path) << text;
    }

    fs::path base_;
};

TEST(StaticFiles, ServesRegularFilesUnderTheRootByTheirType) {
    WebRoot web;
    StaticFiles files(web.root());
    const std::vector<std::tuple<std::string, std::string, std::string>> served = {
        {"/", "text/html; charset=utf-8", "<p>page</p>"},
        {"/index.html", "text/html; charset=utf-8", "<p>page</p>"},
        {"/app.js", "text/javascript; charset=utf-8", "export {};"},
        {"/css/style.css", "text/css; charset=utf-8", "body {}"},
    };
    for (const auto& [path, type, body] : served) {
        SCOPED_TRACE(path);
        auto file = files.Find(path);
        ASSERT_TRUE(file);
        EXPECT_EQ(file->status, 200);
        EXPECT_EQ(file->contentType, type);
        EXPECT_EQ(file->body, body);
    }
    EXPECT_EQ(ContentTypeOf("openapi.json"), "application/json; charset=utf-8");
    EXPECT_EQ(ContentTypeOf("blob"), "application/octet-stream");

    EXPECT_TRUE(StaticFiles::Claims("GET", "/"));
    EXPECT_TRUE(StaticFiles::Claims("HEAD", "/app.js"));
    EXPECT_FALSE(StaticFiles::Claims("POST", "/"));
    EXPECT_FALSE(StaticFiles::Claims("GET", "/webapi/entry.cgi"));
    EXPECT_FALSE(StaticFiles().Find("/"));
    EXPECT_THROW(StaticFiles("/nonexistent/web"), StartupError);
}

std::string HeaderOf(const StaticFile& file, const std::string& name) {
    for (const auto& [key, value] : file.headers) {
        if (key == name) return value;
    }
    return "";
}

// A browser that takes gzip gets the twin, never a stale one; a copy the
// browser holds is confirmed with 304 and no body.
TEST(StaticFiles, GzipTwinsAndValidators) {
    WebRoot web;
    StaticFiles files(web.root());
    const auto plain = files.Find("/app.js");
    const auto zipped = files.Find("/app.js", {"deflate, gzip;q=0.8", ""});
    ASSERT_TRUE(plain && zipped);
    EXPECT_EQ(zipped->body, "gzipped app");
    EXPECT_EQ(zipped->contentType, "text/javascript; charset=utf-8");
    EXPECT_EQ(HeaderOf(*zipped, "Content-Encoding"), "gzip");
    EXPECT_EQ(HeaderOf(*plain, "Content-Encoding"), "");
    EXPECT_NE(HeaderOf(*plain, "ETag"), HeaderOf(*zipped, "ETag"));
    EXPECT_EQ(files.Find("/", {"gzip", ""})->body, "<p>page</p>");
    EXPECT_EQ(files.Find("/app.js", {"gzip;q=0, deflate", ""})->body, "export {};");

    const std::string etag = HeaderOf(*zipped, "ETag");
    for (const std::string& held : {etag, "\"other\", W/" + etag, std::string("*")}) {
        const auto current = files.Find("/app.js", {"gzip", held});
        EXPECT_EQ(current->status, 304) << held;
        EXPECT_EQ(current->body, "") << held;
    }
    EXPECT_EQ(files.Find("/app.js", {"", etag})->status, 200);
    EXPECT_EQ(files.Find("/app.js", {"gzip", "\"other\""})->status, 200);
}

TEST(StaticFiles, NothingOutsideTheRootNorAnythingButARegularFileIsFound) {
    WebRoot web;
    StaticFiles files(web.root());
    for (const char* path : {"/secret.txt", "/outside/secret.txt", "/../outside/secret.txt",
                             "/css/../app.js", "/./app.js", "/css", "/css/", "//app.js", "/.hidden",
                             "/pipe.js", "/%2e%2e/app.js", "/missing.js", "", "app.js"}) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(files.Find(path));
    }
}

// Through the real host, whose front reads the files as the service user.
TEST(StaticFiles, TheHostServesThePageWithoutASessionAndKeepsTheApi) {
    WebRoot web;
    HostProcess host(Serving(TEST_MODULE_PATH, {"--web-root", web.root().string()}));
    ASSERT_TRUE(host.WaitListening()) << host.StderrText();
    const auto page = farlink_test::Fetch("GET", host.BaseUrl() + "/");
    EXPECT_EQ(page.status, 200);
    EXPECT_EQ(page.body, "<p>page</p>");
    // Kept by the browser and revalidated, unlike every API answer.
    EXPECT_EQ(page.headers.at("cache-control"), "no-cache");
    farlink_test::HttpRequest again;
    again.url = host.BaseUrl() + "/";
    again.headers = {"If-None-Match: " + page.headers.at("etag")};
    EXPECT_EQ(farlink_test::Fetch(again).status, 304);
    farlink_test::HttpRequest rebound;
    rebound.url = host.BaseUrl() + "/";
    rebound.headers = {"Host: attacker.example"};
    EXPECT_EQ(farlink_test::Fetch(rebound).json["error"]["code"].asInt(), 116);
    for (const char* path : {"/secret.txt", "/css/", "/webapi/nothing"}) {
        SCOPED_TRACE(path);
        const auto refused = farlink_test::Fetch("GET", host.BaseUrl() + path);
        EXPECT_EQ(refused.status, 404);
        EXPECT_EQ(refused.json["error"]["code"].asInt(), 109);
    }
    const auto call = farlink_test::Fetch(
        "GET", host.BaseUrl() + "/webapi/entry.cgi?api=Test.Host&version=1&method=echo");
    EXPECT_EQ(call.json["error"]["code"].asInt(), 105);
}

}  // namespace
}  // namespace farlink::host::test
