// SPDX-License-Identifier: Apache-2.0
#include "SystemAuthorities.h"

#include "TlsPeer.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace GatewayApp {
namespace {

std::string Read(const std::string& file) {
    std::ifstream input(file);
    return {std::istreambuf_iterator<char>(input), {}};
}

using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

Certificate Load(const TestCertificate& from) {
    std::FILE* const file = std::fopen(from.certificateFile.c_str(), "re");
    Certificate loaded(file == nullptr ? nullptr : PEM_read_X509(file, nullptr, nullptr, nullptr), &X509_free);
    if (file != nullptr)
        std::fclose(file);
    return loaded;
}

/// A system with a bundle of two authorities, and a folder that holds what a test puts there.
class ASystemWithABundle : public testing::Test {
protected:
    ASystemWithABundle() {
        std::filesystem::create_directory(folder + "/hashed");
        std::ofstream(folder + "/bundle.pem") << Read(known.certificateFile) << Read(other.certificateFile);
        setenv("SSL_CERT_DIR", (folder + "/hashed").c_str(), 1);
        setenv("SSL_CERT_FILE", (folder + "/bundle.pem").c_str(), 1);
    }
    ~ASystemWithABundle() override {
        unsetenv("SSL_CERT_DIR");
        unsetenv("SSL_CERT_FILE");
        std::filesystem::remove_all(folder);
    }

    void PutIntoFolder(const TestCertificate& authority) const {
        std::array<char, 16> name{};
        std::snprintf(name.data(), name.size(), "%08lx.0",
                      X509_NAME_hash_ex(X509_get_subject_name(Load(authority).get()), nullptr, nullptr, nullptr));
        std::filesystem::copy_file(authority.certificateFile, folder + "/hashed/" + name.data());
    }
    void Trust() const { TrustSystemAuthorities(context.get()); }
    bool IsTrusted(const TestCertificate& certificate) const {
        const Certificate loaded = Load(certificate);
        const std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> check(X509_STORE_CTX_new(),
                                                                                    &X509_STORE_CTX_free);
        X509_STORE_CTX_init(check.get(), SSL_CTX_get_cert_store(context.get()), loaded.get(), nullptr);
        return X509_verify_cert(check.get()) == 1;
    }
    int AuthoritiesRead() const {
        return sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context.get())));
    }

    const std::string folder = [] {
        std::string made = testing::TempDir() + "authorities-XXXXXX";
        return std::string(mkdtemp(made.data()));
    }();
    const TestCertificate known{folder, {"known"}};
    const TestCertificate other{folder, {"other"}};
    const TestCertificate unknown{folder, {"unknown"}};
    const TestCertificate server{folder, {"server"}, &known};
    const TestCertificate stranger{folder, {"stranger"}, &unknown};
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context{SSL_CTX_new(TLS_client_method()), &SSL_CTX_free};
};

TEST_F(ASystemWithABundle, ReadsItNotWhereTheFolderSuffices) {
    PutIntoFolder(known);
    Trust();
    EXPECT_EQ(AuthoritiesRead(), 0);
    EXPECT_TRUE(IsTrusted(server));
    EXPECT_EQ(AuthoritiesRead(), 1);
}

TEST_F(ASystemWithABundle, LooksThereForWhatTheFolderHasNot) {
    PutIntoFolder(other);
    Trust();
    EXPECT_TRUE(IsTrusted(server));
    EXPECT_TRUE(IsTrusted(server));
    EXPECT_FALSE(IsTrusted(stranger));
}

TEST_F(ASystemWithABundle, ReadsItAtOnceBesideAnEmptyFolder) {
    Trust();
    EXPECT_EQ(AuthoritiesRead(), 2);
    EXPECT_TRUE(IsTrusted(server));
    EXPECT_FALSE(IsTrusted(stranger));
}

} // namespace
} // namespace GatewayApp
