#pragma once

#include <QByteArray>
#include <QString>

#include <QByteArrayView>

#include <memory>
#include <optional>

namespace ostrand::ed25519 {

// A public key from its base64 text; empty when the text is not exactly 32
// bytes of base64.
std::optional<QByteArray> publicKeyFromBase64(const QString& text);

// A fresh key pair: the 32-byte seed (kept secret) and the public key.
struct KeyPair {
    QByteArray seed;
    QByteArray publicKey;
};
std::optional<KeyPair> generate();
std::optional<KeyPair> fromSeed(const QByteArray& seed);

// The 64-byte detached signature of `message` with the key made from `seed`.
QByteArray sign(const QByteArray& seed, const QByteArray& message);
bool verify(const QByteArray& publicKey, const QByteArray& message, const QByteArray& signature);

// SHA-256 fed piece by piece, so that a package is never whole in memory.
class Sha256 {
public:
    Sha256();
    ~Sha256();
    Sha256(const Sha256&) = delete;
    Sha256& operator=(const Sha256&) = delete;
    void add(QByteArrayView bytes);
    QByteArray result(); // 32 bytes; ends the hash

private:
    struct State;
    std::unique_ptr<State> m_state;
};

// What a release's signature covers: its version and its package's SHA-256,
// so that an old signed package cannot be offered under a newer version.
QByteArray releaseMessage(const QString& version, const QByteArray& packageSha256);

// Strict base64 (standard alphabet, padded); empty on any other character.
std::optional<QByteArray> decodeBase64(const QString& text);

} // namespace ostrand::ed25519
