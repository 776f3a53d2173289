#pragma once

#include "FileRevealer.h"

#include <QDBusConnection>
#include <QObject>

#include <functional>

namespace ostrand {

// Reveals files through org.freedesktop.FileManager1.ShowItems on the session
// bus. When no bus or file manager answers it hands the containing folder to
// the fallback, if one is set (the desktop shell opens the folder), and
// otherwise does nothing.
class DBusFileRevealer : public QObject, public FileRevealer {
    Q_OBJECT

public:
    using Fallback = std::function<void(const QUrl& folder)>;

    explicit DBusFileRevealer(QObject* parent = nullptr);
    explicit DBusFileRevealer(const QDBusConnection& sessionBus, QObject* parent = nullptr);

    void setFallback(Fallback fallback) { m_fallback = std::move(fallback); }
    using FileRevealer::reveal;
    void reveal(const QList<QUrl>& files) override;

private:
    void fallBack(const QUrl& file);

    QDBusConnection m_sessionBus;
    Fallback m_fallback;
};

} // namespace ostrand
