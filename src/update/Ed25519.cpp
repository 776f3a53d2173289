#include "Ed25519.h"

#include <sodium.h>

namespace ostrand::ed25519 {

namespace {

bool ready() {
    static const bool initialised = sodium_init() >= 0;
    return initialised;
}

// Secret bytes are wiped when they go out of scope.
struct SecretKey {
    unsigned char bytes[crypto_sign_SECRETKEYBYTES];
    SecretKey() = default;
    SecretKey(const SecretKey&) = delete;
    SecretKey& operator=(const SecretKey&) = delete;
    ~SecretKey() { sodium_memzero(bytes, sizeof bytes); }
};

const unsigned char* bytes(const QByteArray& array) {
    return reinterpret_cast<const unsigned char*>(array.constData());
}

} // namespace

struct Sha256::State {
    crypto_hash_sha256_state sodium;
};

Sha256::Sha256()
    : m_state(std::make_unique<State>()) {
    ready();
    crypto_hash_sha256_init(&m_state->sodium);
}

Sha256::~Sha256() = default;

void Sha256::add(QByteArrayView bytes) {
    crypto_hash_sha256_update(&m_state->sodium,
                              reinterpret_cast<const unsigned char*>(bytes.data()),
                              static_cast<unsigned long long>(bytes.size()));
}

QByteArray Sha256::result() {
    QByteArray digest(crypto_hash_sha256_BYTES, '\0');
    crypto_hash_sha256_final(&m_state->sodium, reinterpret_cast<unsigned char*>(digest.data()));
    return digest;
}

QByteArray releaseMessage(const QString& version, const QByteArray& packageSha256) {
    // The digest has a fixed length at the end, so no version can be made to
    // read as another one with a different digest.
    return QByteArrayLiteral("ostrand-update-v1\n") + version.trimmed().toUtf8() + '\n' +
           packageSha256.toHex();
}

std::optional<QByteArray> decodeBase64(const QString& text) {
    const QByteArray::FromBase64Result decoded = QByteArray::fromBase64Encoding(
        text.trimmed().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || text.trimmed().isEmpty()) {
        return std::nullopt;
    }
    return decoded.decoded;
}

std::optional<QByteArray> publicKeyFromBase64(const QString& text) {
    std::optional<QByteArray> key = decodeBase64(text);
    if (!key || key->size() != crypto_sign_PUBLICKEYBYTES) {
        return std::nullopt;
    }
    return key;
}

std::optional<KeyPair> fromSeed(const QByteArray& seed) {
    if (!ready() || seed.size() != crypto_sign_SEEDBYTES) {
        return std::nullopt;
    }
    SecretKey secret;
    KeyPair pair{seed, QByteArray(crypto_sign_PUBLICKEYBYTES, '\0')};
    crypto_sign_seed_keypair(reinterpret_cast<unsigned char*>(pair.publicKey.data()), secret.bytes,
                             bytes(seed));
    return pair;
}

std::optional<KeyPair> generate() {
    if (!ready()) {
        return std::nullopt;
    }
    QByteArray seed(crypto_sign_SEEDBYTES, '\0');
    randombytes_buf(seed.data(), static_cast<size_t>(seed.size()));
    return fromSeed(seed);
}

QByteArray sign(const QByteArray& seed, const QByteArray& message) {
    if (!ready() || seed.size() != crypto_sign_SEEDBYTES) {
        return {};
    }
    SecretKey secret;
    unsigned char publicKey[crypto_sign_PUBLICKEYBYTES];
    crypto_sign_seed_keypair(publicKey, secret.bytes, bytes(seed));
    QByteArray signature(crypto_sign_BYTES, '\0');
    crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                         bytes(message), static_cast<unsigned long long>(message.size()),
                         secret.bytes);
    return signature;
}

bool verify(const QByteArray& publicKey, const QByteArray& message, const QByteArray& signature) {
    if (!ready() || publicKey.size() != crypto_sign_PUBLICKEYBYTES ||
        signature.size() != crypto_sign_BYTES) {
        return false;
    }
    return crypto_sign_verify_detached(bytes(signature), bytes(message),
                                       static_cast<unsigned long long>(message.size()),
                                       bytes(publicKey)) == 0;
}

} // namespace ostrand::ed25519
