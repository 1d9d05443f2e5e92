// Certificates: self-signed identities kept in a state folder, thumbprints, and the client's check of the
// certificate a server presents.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509v3.h>

#include <fundix/Exception.h>

#include "Internal.h"

namespace Kitra::Http::Tls {

namespace {

template <class T, void (*Free)(T*)>
struct Deleter {
    void operator()(T* p) const { Free(p); }
};
using BioPtr = std::unique_ptr<BIO, Deleter<BIO, BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509, X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY, EVP_PKEY_free>>;
using StoreCtxPtr = std::unique_ptr<X509_STORE_CTX, Deleter<X509_STORE_CTX, X509_STORE_CTX_free>>;

[[noreturn]] void Fail(const std::string& what) {
    unsigned long code = ERR_get_error();
    std::string text = what;
    if (code != 0) {
        char buffer[256];
        ERR_error_string_n(code, buffer, sizeof buffer);
        text += ": ";
        text += buffer;
    }
    ERR_clear_error();
    throw Fundix::InvalidArgumentException(text);
}

X509Ptr ReadCertificate(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    X509Ptr cert(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    if (!cert) Fail("no PEM certificate");
    return cert;
}

std::string BioText(BIO* bio) {
    char* data = nullptr;
    long size = BIO_get_mem_data(bio, &data);
    return std::string(data, static_cast<size_t>(size));
}

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Fundix::InvalidArgumentException("cannot read " + path + ": " + std::strerror(errno));
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void WritePrivateFile(const std::string& path, const std::string& text) {
    std::string temporary = path + ".new";
    {
        int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (fd < 0) throw Fundix::InvalidArgumentException("cannot write " + temporary + ": " + std::strerror(errno));
        size_t done = 0;
        while (done < text.size()) {
            ssize_t n = ::write(fd, text.data() + done, text.size() - done);
            if (n <= 0) {
                ::close(fd);
                throw Fundix::InvalidArgumentException("cannot write " + temporary + ": " + std::strerror(errno));
            }
            done += static_cast<size_t>(n);
        }
        ::fsync(fd);
        ::close(fd);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0)
        throw Fundix::InvalidArgumentException("cannot write " + path + ": " + std::strerror(errno));
}

void MakeFolders(const std::string& folder) {
    for (size_t at = 1; at <= folder.size(); ++at) {
        if (at != folder.size() && folder[at] != '/') continue;
        std::string part = folder.substr(0, at);
        if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            throw Fundix::InvalidArgumentException("cannot create " + part + ": " + std::strerror(errno));
    }
}

bool IsIpAddress(const std::string& host) {
    unsigned char buffer[16];
    return inet_pton(AF_INET, host.c_str(), buffer) == 1 || inet_pton(AF_INET6, host.c_str(), buffer) == 1;
}

}  // namespace

std::string NormalizeThumbprint(const std::string& text) {
    std::string hex;
    for (char c : text) {
        if (c == ':' || c == ' ') continue;
        if (!std::isxdigit(static_cast<unsigned char>(c))) return "";
        hex += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return hex;
}

bool IsThumbprint(const std::string& text) {
    std::string hex = NormalizeThumbprint(text);
    return hex.size() == 40 || hex.size() == 64;
}

std::string Thumbprint(X509* certificate, Digest digest) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (X509_digest(certificate, digest == Digest::Sha1 ? EVP_sha1() : EVP_sha256(), md, &size) != 1)
        Fail("cannot digest the certificate");
    static const char kHex[] = "0123456789ABCDEF";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        if (i > 0) text += ':';
        text += kHex[md[i] >> 4];
        text += kHex[md[i] & 15];
    }
    return text;
}

std::string Thumbprint(const std::string& certificatePem, Digest digest) {
    return Thumbprint(ReadCertificate(certificatePem).get(), digest);
}

std::string ToPem(X509* certificate) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), certificate);
    return BioText(bio.get());
}

std::vector<uint8_t> ToDer(const std::string& certificatePem) {
    X509Ptr cert = ReadCertificate(certificatePem);
    int size = i2d_X509(cert.get(), nullptr);
    if (size <= 0) Fail("cannot encode the certificate");
    std::vector<uint8_t> der(static_cast<size_t>(size));
    unsigned char* out = der.data();
    i2d_X509(cert.get(), &out);
    return der;
}

Identity CreateSelfSigned(const std::string& commonName, const std::vector<std::string>& hostNames, int days) {
    KeyPtr key(EVP_EC_gen("P-256"));
    if (!key) Fail("cannot create a key");
    X509Ptr cert(X509_new());
    X509_set_version(cert.get(), 2);
    unsigned char serial[16];
    if (RAND_bytes(serial, sizeof serial) != 1) Fail("no random serial");
    serial[0] &= 0x7f;
    BIGNUM* bn = BN_bin2bn(serial, sizeof serial, nullptr);
    BN_to_ASN1_INTEGER(bn, X509_get_serialNumber(cert.get()));
    BN_free(bn);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), -60 * 60);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), static_cast<long>(days) * 24 * 60 * 60);
    X509_set_pubkey(cert.get(), key.get());
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    std::string alt;
    for (const auto& h : hostNames) {
        if (!alt.empty()) alt += ',';
        alt += (IsIpAddress(h) ? "IP:" : "DNS:") + h;
    }
    X509V3_CTX ctx;
    X509V3_set_ctx_nodb(&ctx);
    X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
    auto add = [&](int nid, const std::string& value) {
        X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str());
        if (ext == nullptr) Fail("cannot add extension " + value);
        X509_add_ext(cert.get(), ext, -1);
        X509_EXTENSION_free(ext);
    };
    add(NID_basic_constraints, "critical,CA:FALSE");
    add(NID_ext_key_usage, "serverAuth");
    add(NID_subject_key_identifier, "hash");
    if (!alt.empty()) add(NID_subject_alt_name, alt);
    if (X509_sign(cert.get(), key.get(), EVP_sha256()) <= 0) Fail("cannot sign the certificate");

    Identity identity;
    identity.certificatePem = ToPem(cert.get());
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1) Fail("cannot write the key");
    identity.keyPem = BioText(bio.get());
    return identity;
}

Identity Load(const std::string& certificateFile, const std::string& keyFile) {
    Identity identity{ReadFile(certificateFile), ReadFile(keyFile)};
    try {
        ReadCertificate(identity.certificatePem);
    } catch (const Fundix::Exception& e) {
        throw Fundix::InvalidArgumentException(certificateFile + ": " + e.GetMessage());
    }
    return identity;
}

Identity LoadOrCreate(const std::string& folder, const std::string& commonName, const std::vector<std::string>& hostNames) {
    std::string certificate = folder + "/certificate.pem", key = folder + "/key.pem";
    if (::access(certificate.c_str(), F_OK) == 0 || ::access(key.c_str(), F_OK) == 0) return Load(certificate, key);
    MakeFolders(folder);
    Identity identity = CreateSelfSigned(commonName, hostNames);
    WritePrivateFile(key, identity.keyPem);
    WritePrivateFile(certificate, identity.certificatePem);
    return identity;
}

std::string DefaultStateFolder(const std::string& program) {
    const char* state = std::getenv("XDG_STATE_HOME");
    if (state != nullptr && state[0] == '/') return std::string(state) + "/" + program;
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr && home[0] != '\0' ? home : ".") + "/.local/state/" + program;
}

bool CheckPeer(SSL* ssl, const std::string& expected, X509_STORE* store, const std::string& host, Rejection& out) {
    X509* leaf = SSL_get0_peer_certificate(ssl);
    if (leaf == nullptr) {
        out.reason = "the server presented no certificate";
        return false;
    }
    STACK_OF(X509)* chain = SSL_get_peer_cert_chain(ssl);  // the client's view includes the server's own
    auto reject = [&](std::string reason) {
        out.reason = std::move(reason);
        out.thumbprint = Thumbprint(leaf, Digest::Sha1);
        out.selfSigned = X509_self_signed(leaf, 0) == 1;
        out.chain.clear();
        if (chain != nullptr)
            for (int i = 0; i < sk_X509_num(chain); ++i) out.chain.push_back(ToPem(sk_X509_value(chain, i)));
        if (out.chain.empty()) out.chain.push_back(ToPem(leaf));
        return false;
    };
    if (!expected.empty()) {
        std::string want = NormalizeThumbprint(expected);
        std::string have = NormalizeThumbprint(Thumbprint(leaf, want.size() == 64 ? Digest::Sha256 : Digest::Sha1));
        if (want == have) return true;
        return reject("the server's certificate " + Thumbprint(leaf, Digest::Sha1) + " is not the expected " + expected);
    }
    StoreCtxPtr ctx(X509_STORE_CTX_new());
    if (!ctx || X509_STORE_CTX_init(ctx.get(), store, leaf, chain) != 1) return reject("cannot check the certificate");
    X509_STORE_CTX_set_purpose(ctx.get(), X509_PURPOSE_SSL_SERVER);
    X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(ctx.get());
    if (IsIpAddress(host)) X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
    else X509_VERIFY_PARAM_set1_host(param, host.c_str(), host.size());
    if (X509_verify_cert(ctx.get()) == 1) return true;
    int error = X509_STORE_CTX_get_error(ctx.get());
    ERR_clear_error();
    return reject(std::string("the server's certificate is not trusted: ") + X509_verify_cert_error_string(error));
}

}  // namespace Kitra::Http::Tls
