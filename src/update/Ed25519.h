#pragma once

#include <QByteArray>
#include <QString>

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

// Strict base64 (standard alphabet, padded); empty on any other character.
std::optional<QByteArray> decodeBase64(const QString& text);

} // namespace ostrand::ed25519
