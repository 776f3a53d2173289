#pragma once

#include "update/Appcast.h"

#include <QString>

#include <functional>

namespace ostrand {

// What the updater shows the user and asks of them. The windows' version is
// UpdateDialogs; tests record the calls instead.
class UpdatePrompter {
public:
    enum class Choice { Install, Skip, Later };

    virtual ~UpdatePrompter() = default;

    virtual void upToDate(const QString& message) = 0;
    virtual void failed(const QString& message) = 0;
    // `current` is the running version; call `decided` once.
    virtual void offer(const AppcastItem& item, const QString& current,
                       std::function<void(Choice)> decided) = 0;
    // The one question on the second launch; `decided(true)` turns checks on.
    virtual void askAutomaticChecks(std::function<void(bool)> decided) = 0;
    virtual void downloadStarted(const AppcastItem& item, std::function<void()> cancel) = 0;
    virtual void downloadProgress(qint64 received, qint64 total) = 0;
    virtual void downloadEnded() = 0;
    // Hands a verified package to the desktop's installer.
    virtual void open(const QString& path) = 0;
};

} // namespace ostrand
