// Renders the windows in each of their states to PNG files for looking at:
// ostrand_screenshots OUTPUT_FOLDER. Meant to run under Xvfb.
#include "UiTestSupport.h"
#include "media/LevelingEngine.h"
#include "ui/AppTranslations.h"
#include "ui/AppUpdater.h"
#include "ui/DropHighlight.h"
#include "ui/JobList.h"
#include "ui/LoudnessGraphWindow.h"
#include "ui/MainWindow.h"
#include "ui/SettingsWindow.h"
#include "ui/UpdateDialogs.h"

#include <QApplication>
#include <QDialog>
#include <QListView>
#include <QMenu>
#include <QMouseEvent>
#include <QScreen>
#include <QTemporaryDir>
#include <QThread>

using namespace ostrand;
using namespace ostrand::test;

namespace {

QDir output;

void settle() {
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
        QThread::msleep(10);
    }
}

void save(QWidget& widget, const QString& name) {
    settle();
    widget.grab().save(output.filePath(name + QStringLiteral(".png")));
}

void saveScreen(const QRect& area, const QString& name) {
    settle();
    QGuiApplication::primaryScreen()
        ->grabWindow(0, area.x(), area.y(), area.width(), area.height())
        .save(output.filePath(name + QStringLiteral(".png")));
}

// The example recording leveled, or made-up data when it is not at hand
// (the script runs from the top of the source tree).
std::shared_ptr<const LevelingSeries> exampleSeries() {
    const QString source = QStringLiteral("examples/speech.wav");
    const QTemporaryDir dir;
    if (QFile::exists(source) && dir.isValid()) {
        try {
            LevelingRequest request;
            request.source = source.toStdString();
            request.destination = dir.filePath(QStringLiteral("out.wav")).toStdString();
            request.existing = OutputNaming::ExistingFile::replace;
            return LevelingEngine::process(request, {}, {}).series;
        } catch (const std::exception& error) {
            qWarning("examples/speech.wav: %s", error.what());
        }
    }
    return talkSeries(205.0);
}

// The welcome, the jobs with the warned one selected, and the settings with
// every caption, in the application's colours as they are now.
void coloursPictures(AppUpdater& updater, const QString& suffix) {
    QueueFixture fixture;
    MainWindow window(fixture.queue, updater, &fixture.revealer);
    window.move(0, 0);
    window.show();
    save(window, QStringLiteral("main-empty") + suffix);
    fillWithEveryState(fixture.queue);
    window.resize(560, std::min(640, window.screen()->availableGeometry().height()));
    QListView* view = window.jobList()->view();
    view->setCurrentIndex(view->model()->index(3, 0));
    save(window, QStringLiteral("main-jobs") + suffix);
    window.hide();

    TestSettings settings;
    settings.settings.setSaveMode(SaveMode::fixedFolder);
    settings.settings.setExportWAVWithVideo(true);
    SettingsWindow settingsWindow(settings.settings, updater);
    settingsWindow.move(0, 0);
    settingsWindow.show();
    save(settingsWindow, QStringLiteral("settings") + suffix);
    // The whole screen, to see the window fit on it.
    saveScreen(settingsWindow.screen()->geometry(), QStringLiteral("settings-screen") + suffix);
}

} // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    // In the language of LANG, as the program shows itself.
    const AppTranslations translations(QLocale::system());
    if (argc < 2 || argc > 3) {
        qCritical("usage: ostrand_screenshots OUTPUT_FOLDER [SUFFIX]\n"
                  "  with a suffix, only the main and settings windows, named with it");
        return 2;
    }
    output = QDir(QString::fromLocal8Bit(argv[1]));
    output.mkpath(QStringLiteral("."));
    AppUpdater updater;
    if (argc == 3) {
        // Another run of the program, as with QT_SCALE_FACTOR=2.
        coloursPictures(updater, QString::fromLocal8Bit(argv[2]));
        return 0;
    }

    {
        QueueFixture fixture;
        MainWindow window(fixture.queue, updater, &fixture.revealer);
        window.move(0, 0);
        window.show();
        auto* highlight = window.findChild<DropHighlight*>();
        highlight->show();
        highlight->raise();
        save(window, QStringLiteral("main-drop-highlight"));
        highlight->hide();

        fillWithEveryState(fixture.queue);
        window.resize(window.minimumSize());
        save(window, QStringLiteral("main-jobs-smallest"));
        window.resize(560, 640);
        {
            // A row whose output could not keep everything says so.
            LevelingReport report = *fixture.queue.jobs()[2]->report();
            report.notes = {"the cover art (mjpeg) cannot be kept in WebM"};
            fixture.queue.jobs()[2]->setReport(report);
            save(window, QStringLiteral("main-job-notes"));
        }

        for (const auto& [row, name] : {std::pair{3, QStringLiteral("menu-finished")},
                                        std::pair{0, QStringLiteral("menu-running")},
                                        std::pair{4, QStringLiteral("menu-failed")}}) {
            QListView* view = window.jobList()->view();
            const QModelIndex index = view->model()->index(row, 0);
            view->setCurrentIndex(index);
            const QRect item = view->visualRect(index);
            const QPoint at = view->viewport()->mapToGlobal(item.center());
            std::unique_ptr<QMenu> menu(window.contextMenu(*fixture.queue.jobs().at(row), &window));
            menu->popup(at);
            settle();
            const QRect area = window.frameGeometry().united(menu->geometry());
            saveScreen(area, name);
            menu->hide();
        }
    }

    {
        // The graph of the example, pointed at, in the light and dark colours.
        const QPalette light = QApplication::palette();
        LoudnessGraphWindow graph(exampleSeries(), QStringLiteral("speech leveled.wav"),
                                  QDir::tempPath());
        graph.resize(900, 420);
        graph.show();
        settle();
        for (const auto& [palette, name] :
             {std::pair{light, QStringLiteral("loudness-graph")},
              std::pair{darkPalette(), QStringLiteral("loudness-graph-dark")}}) {
            QApplication::setPalette(palette);
            settle();
            LoudnessPlotView* view = graph.view();
            const QPointF at(view->plot().xFor(6.2), view->height() / 2.0);
            QMouseEvent move(QEvent::MouseMove, at, view->mapToGlobal(at), Qt::NoButton, {}, {});
            QApplication::sendEvent(view, &move);
            save(graph, name);
        }
        QApplication::setPalette(light);
    }

    for (SaveMode mode : allSaveModes) {
        TestSettings settings;
        settings.settings.setSaveMode(mode);
        settings.settings.setExportWAVWithVideo(mode != SaveMode::nextToOriginal);
        SettingsWindow window(settings.settings, updater);
        window.show();
        save(window, QStringLiteral("settings-") + rawValue(mode));
        if (mode == SaveMode::fixedFolder) {
            settings.settings.setFixedFolder(QUrl::fromLocalFile(QDir::tempPath()));
            settings.settings.setOutputChannels(OutputChannels::mono);
            save(window, QStringLiteral("settings-fixedFolder-chosen"));
        }
    }

    {
        TestSettings settings;
        // As when the feed has been reached and a check may start.
        SwitchableUpdater ready;
        ready.setCanCheckForUpdates(true);
        SettingsWindow window(settings.settings, ready);
        window.show();
        save(window, QStringLiteral("settings-updates-available"));
    }

    coloursPictures(updater, {}); // the light ones, as the desktop draws by default
    {
        const QPalette light = QApplication::palette();
        QApplication::setPalette(darkPalette());
        coloursPictures(updater, QStringLiteral("-dark"));
        QApplication::setPalette(light);
    }

    AppcastItem update;
    update.version = QStringLiteral("0.2.0");
    update.shortVersion = QStringLiteral("0.2");
    update.releaseNotes = QStringLiteral(
        "<h3>What\u2019s new</h3><ul><li>Faster analysis of long recordings</li>"
        "<li>WebM files keep their <b>Opus</b> audio</li></ul>"
        "<p>Details on <a href=\"https://example.com/notes\">the release page</a>.</p>");
    for (bool critical : {false, true}) {
        update.critical = critical;
        QDialog* offer = UpdateDialogs::makeOfferDialog(
            update, QStringLiteral("0.1.0"), [](UpdatePrompter::Choice) {}, nullptr);
        offer->show();
        save(*offer,
             critical ? QStringLiteral("update-offer-critical") : QStringLiteral("update-offer"));
        offer->close();
    }
    return 0;
}
