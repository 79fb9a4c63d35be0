#include "trust_store.h"

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>

#include <memory>
#include <mutex>
#include <string>

namespace ORVO {
namespace Relay {
namespace detail {
namespace {

// What identifies a version of the bundle file.
struct FileVersion {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = -1;
    timespec modified{};

    bool operator==(const FileVersion& other) const {
        return device == other.device && inode == other.inode && size == other.size &&
               modified.tv_sec == other.modified.tv_sec &&
               modified.tv_nsec == other.modified.tv_nsec;
    }
};

bool VersionOf(const char* path, FileVersion& version) {
    struct stat info;
    if (stat(path, &info) != 0) return false;
    version = {info.st_dev, info.st_ino, info.st_size, info.st_mtim};
    return true;
}

TrustStore LoadStore(const char* bundle, const char* directory) {
    TrustStore store(X509_STORE_new());
    if (!store || X509_STORE_load_file(store.get(), bundle) != 1) return nullptr;
    // The directory is looked up by subject hash when a chain needs it, as
    // libcurl would have it looked up.
    if (directory != nullptr && X509_STORE_load_path(store.get(), directory) != 1) return nullptr;
    return store;
}

class TrustStoreCache {
public:
    // A new reference to the store of `bundle` and `directory`; null when
    // the bundle cannot be read or parsed.
    TrustStore Get(const char* bundle, const char* directory) {
        FileVersion version;
        if (!VersionOf(bundle, version)) return nullptr;
        std::lock_guard<std::mutex> lock(mutex_);
        if (!store_ || !(version == version_) || bundle_ != bundle ||
            directory_ != (directory != nullptr ? directory : "")) {
            store_ = LoadStore(bundle, directory);
            version_ = version;
            bundle_ = bundle;
            directory_ = directory != nullptr ? directory : "";
        }
        if (!store_ || X509_STORE_up_ref(store_.get()) != 1) return nullptr;
        return TrustStore(store_.get());
    }

private:
    std::mutex mutex_;
    TrustStore store_;
    FileVersion version_;
    std::string bundle_;
    std::string directory_;
};

TrustStoreCache& Cache() {
    static TrustStoreCache cache;
    return cache;
}

// libcurl's hook into the TLS context it has just made for a connection.
CURLcode InstallStore(CURL*, void* context, void* store) {
    SSL_CTX_set1_cert_store(static_cast<SSL_CTX*>(context), static_cast<X509_STORE*>(store));
    return CURLE_OK;
}

}  // namespace

void TrustStoreFree::operator()(X509_STORE* store) const { X509_STORE_free(store); }

TrustStore UseCachedTrustStore(CURL* handle) {
    const char* bundle = nullptr;
    const char* directory = nullptr;
    if (curl_easy_getinfo(handle, CURLINFO_CAINFO, &bundle) != CURLE_OK || bundle == nullptr) {
        return nullptr;
    }
    curl_easy_getinfo(handle, CURLINFO_CAPATH, &directory);
    // The handle gets a raw pointer; the reference returned keeps the store
    // alive even if another thread replaces the cached one meanwhile, and
    // each TLS context that takes it counts a reference of its own
    // (SSL_CTX_set1_cert_store).
    TrustStore store = Cache().Get(bundle, directory);
    if (!store || curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, InstallStore) != CURLE_OK) {
        return nullptr;
    }
    curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, store.get());
    curl_easy_setopt(handle, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
    return store;
}

}  // namespace detail
}  // namespace Relay
}  // namespace ORVO
