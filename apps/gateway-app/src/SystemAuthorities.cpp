// SPDX-License-Identifier: Apache-2.0
#include "SystemAuthorities.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace GatewayApp {

namespace {

const char* FromEnvironment(const char* variable, const char* otherwise) {
    const char* const value = std::getenv(variable); // NOLINT(concurrency-mt-unsafe): nobody sets it
    return value == nullptr ? otherwise : value;
}

bool HoldsHashed(const char* folder) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        if (entry->path().stem().string().size() == 8 && entry->path().extension() == ".0")
            return true;
    return false;
}

/// OpenSSL asks this when neither its memory nor the folder has the name.
int FindInBundle(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name, X509_OBJECT* found) noexcept {
    X509_STORE* const store = X509_LOOKUP_get_store(lookup);
    if (type != X509_LU_X509 || X509_LOOKUP_get_method_data(lookup) != nullptr)
        return 0;
    X509_LOOKUP_set_method_data(lookup, lookup); // once is enough: what it holds is in memory then
    X509_STORE_load_file(store, FromEnvironment(X509_get_default_cert_file_env(), X509_get_default_cert_file()));
    ERR_clear_error();
    X509_STORE_lock(store);
    X509_OBJECT* const object = X509_OBJECT_retrieve_by_subject(X509_STORE_get0_objects(store), type, name);
    X509* const certificate = object == nullptr ? nullptr : X509_OBJECT_get0_X509(object);
    X509_STORE_unlock(store);
    if (certificate == nullptr || X509_OBJECT_set1_X509(found, certificate) != 1)
        return 0;
    X509_free(certificate); // the caller counts its own reference, the store keeps the certificate
    return 1;
}

X509_LOOKUP_METHOD* BundleLater() {
    static X509_LOOKUP_METHOD* const method = [] {
        X509_LOOKUP_METHOD* const made = X509_LOOKUP_meth_new("the bundle, when it is needed");
        if (made != nullptr)
            X509_LOOKUP_meth_set_get_by_subject(made, &FindInBundle);
        return made;
    }();
    return method;
}

} // namespace

void TrustSystemAuthorities(SSL_CTX* context) {
    const char* const folder = FromEnvironment(X509_get_default_cert_dir_env(), X509_get_default_cert_dir());
    X509_LOOKUP_METHOD* const bundle = HoldsHashed(folder) ? BundleLater() : nullptr;
    if (bundle == nullptr) {
        SSL_CTX_set_default_verify_paths(context);
        return;
    }
    SSL_CTX_set_default_verify_dir(context);
    X509_STORE_add_lookup(SSL_CTX_get_cert_store(context), bundle);
}

} // namespace GatewayApp
