#include "ui/MainWindow.h"
#include "UiTestSupport.h"
#include "ui/AppInfo.h"
#include "ui/AppTranslations.h"
#include "ui/AppUpdater.h"
#include "ui/DropHighlight.h"
#include "ui/ElidedLabel.h"
#include "ui/JobList.h"
#include "ui/JobRow.h"
#include "ui/LoudnessGraphWindow.h"
#include "ui/SettingsWindow.h"
#include "ui/WelcomePanel.h"

#include <QAction>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QDragEnterEvent>
#include <QFileDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QListView>
#include <QMenu>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QStackedWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <fstream>

using namespace ostrand;
using namespace ostrand::test;

namespace {

QStringList menuTitles(QMenu& menu) {
    QStringList titles;
    for (QAction* action : menu.actions()) {
        titles << (action->isSeparator() ? QStringLiteral("--") : action->text().remove(u'&'));
    }
    return titles;
}

// WCAG 2: relative luminances L1 >= L2 read at (L1 + 0.05) / (L2 + 0.05).
double contrastRatio(const QColor& a, const QColor& b) {
    const auto luminance = [](const QColor& c) {
        const auto linear = [](double v) {
            return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
        };
        return 0.2126 * linear(c.redF()) + 0.7152 * linear(c.greenF()) + 0.0722 * linear(c.blueF());
    };
    const double la = luminance(a);
    const double lb = luminance(b);
    return (std::max(la, lb) + 0.05) / (std::min(la, lb) + 0.05);
}

// The words a label, a button or a group box shows.
QString shownText(QWidget* widget) {
    if (const auto* box = qobject_cast<QGroupBox*>(widget)) {
        return box->title();
    }
    const bool hasText = qobject_cast<QLabel*>(widget) || qobject_cast<QAbstractButton*>(widget);
    return hasText ? widget->property("text").toString() : QString();
}

// Every shown, enabled text of the window whose colour reads under 4.5:1
// (WCAG AA) on what is drawn behind it: the commonest colour of its pixels.
// Disabled controls are exempt, as in WCAG.
QStringList unreadableTexts(QWidget& window) {
    const QImage image = window.grab().toImage();
    QStringList found;
    for (QWidget* widget : window.findChildren<QWidget*>()) {
        const QString text = shownText(widget);
        if (text.isEmpty() || !widget->isVisibleTo(&window) || !widget->isEnabled()) {
            continue;
        }
        const QRect area =
            QRect(widget->mapTo(&window, QPoint(0, 0)), widget->size()).intersected(image.rect());
        QHash<QRgb, int> counts;
        for (int y = area.top(); y <= area.bottom(); ++y) {
            for (int x = area.left(); x <= area.right(); ++x) {
                ++counts[image.pixel(x, y)];
            }
        }
        const auto ground = std::max_element(counts.begin(), counts.end());
        if (ground == counts.end()) {
            continue;
        }
        const QColor ink = widget->palette().color(widget->foregroundRole());
        const double ratio = contrastRatio(ink, QColor::fromRgb(ground.key()));
        if (ratio < 4.5) {
            found << QStringLiteral("%1 \"%2\" %3 on %4: %5:1")
                         .arg(widget->objectName(), text.left(40), ink.name(),
                              QColor::fromRgb(ground.key()).name())
                         .arg(ratio, 0, 'f', 2);
        }
    }
    return found;
}

// What a window shows or tells assistive technology in words: its title,
// labels, buttons, group titles, menu entries, tool tips and accessible names.
QStringList wordsOf(QWidget& window) {
    QStringList words{window.windowTitle()};
    QList<QWidget*> widgets = window.findChildren<QWidget*>();
    widgets << &window;
    for (QWidget* widget : widgets) {
        words << widget->toolTip() << widget->accessibleName() << shownText(widget);
        for (QAction* action : widget->actions()) {
            words << action->text() << action->toolTip();
            if (action->menu()) {
                words << wordsOf(*action->menu());
            }
        }
    }
    words.removeAll(QString());
    return words;
}

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        // Qt's own dialog, as desktops without a portal show it.
        QApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    }
    void init() {
        m_fixture = std::make_unique<QueueFixture>();
        m_window = std::make_unique<MainWindow>(m_fixture->queue, m_updater, &m_fixture->revealer);
        m_window->show();
    }
    void cleanup() {
        m_window.reset();
        m_fixture.reset();
    }

    void dropQueuesOnlyAudioAndVideo_data() {
        QTest::addColumn<QByteArrayList>("dropped"); // names as the file system's bytes
        QTest::addColumn<QByteArrayList>("inside");  // files in the dropped folders
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<QStringList>("queued");
        QTest::newRow("folder, text and WAV")
            << QByteArrayList{"folder.wav", "notes.txt", "talk.wav"} << QByteArrayList{} << true
            << QStringList{"talk.wav"};
        QTest::newRow("only unsupported")
            << QByteArrayList{"folder.wav", "notes.txt", "song.mid", "list.m3u"} << QByteArrayList{}
            << false << QStringList{};
        QTest::newRow("text, no files")
            << QByteArrayList{} << QByteArrayList{} << false << QStringList{};
        QTest::newRow("no extension")
            << QByteArrayList{"recording"} << QByteArrayList{} << false << QStringList{};
        QTest::newRow("video and audio in order")
            << QByteArrayList{"b.mov", "a.mp3", "C.FLAC"} << QByteArrayList{} << true
            << QStringList{"b.mov", "a.mp3", "C.FLAC"};
        QTest::newRow("folder and its subfolders, not hidden or leveled")
            << QByteArrayList{"folder show", "c.wav"}
            << QByteArrayList{"folder show/sub/a.mkv", "folder show/b.flac",
                              "folder show/.cache/x.wav", "folder show/notes.txt",
                              "folder show/b leveled.flac"}
            << true << QStringList{"b.flac", "a.mkv", "c.wav"};
        // From an old Latin-1 disk, shown as the command line shows them.
        QTest::newRow("names not UTF-8") << QByteArrayList{"folder \xe9t\xe9", "d\xe9j\xe0.mp3"}
                                         << QByteArrayList{"folder \xe9t\xe9/caf\xe9.wav"} << true
                                         << QStringList{"caf\\xe9.wav", "d\\xe9j\\xe0.mp3"};
    }
    void dropQueuesOnlyAudioAndVideo() {
        QFETCH(QByteArrayList, dropped);
        QFETCH(QByteArrayList, inside);
        QFETCH(bool, accepted);
        QFETCH(QStringList, queued);
        for (const QByteArray& name : inside) {
            const auto path = m_dir / name.toStdString();
            std::filesystem::create_directories(path.parent_path());
            std::ofstream(path) << "x";
        }
        QList<QUrl> urls;
        for (const QByteArray& name : dropped) {
            const auto path = m_dir / name.toStdString();
            if (name.startsWith("folder")) {
                std::filesystem::create_directories(path);
            } else {
                std::ofstream(path) << "x";
            }
            // As a file manager sends it: the path's bytes, percent-encoded.
            urls << QUrl::fromEncoded("file://" + QByteArray(path.c_str()).toPercentEncoding("/"));
        }
        QMimeData data;
        data.setUrls(urls);
        data.setText(QStringLiteral("not a file")); // as file managers add; alone it is refused
        QCOMPARE(dragEnter(data), !urls.isEmpty());
        QCOMPARE(highlight()->isVisible(), !urls.isEmpty());
        // Leaving takes the highlight away; coming back shows it again.
        QDragLeaveEvent leave;
        QApplication::sendEvent(m_window.get(), &leave);
        QVERIFY(!highlight()->isVisible());
        QCOMPARE(dragEnter(data), !urls.isEmpty());

        QDropEvent drop({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(m_window.get(), &drop);
        QCOMPARE(drop.isAccepted(), accepted);
        QVERIFY(!highlight()->isVisible());
        QCOMPARE(queuedNames(), queued);
        QCOMPARE(welcome()->isVisible(), queued.isEmpty());
        QCOMPARE(m_window->jobList()->isVisible(), !queued.isEmpty());
    }

    void openPanelQueuesWhatItConfirms_data() {
        QTest::addColumn<bool>("fromWelcome"); // else Ctrl+O
        QTest::addColumn<bool>("allFiles");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QStringList>("queued");
        QTest::newRow("two files, Ctrl+O")
            << false << false << R"("b.mkv" "a.flac")" << QStringList{"b.mkv", "a.flac"};
        QTest::newRow("one file, Choose Files")
            << true << false << "c.webm" << QStringList{"c.webm"};
        QTest::newRow("all files, text left out")
            << false << true << R"("notes.txt" "d.ogg")" << QStringList{"d.ogg"};
        QTest::newRow("dismissed") << true << false << QString() << QStringList{};
    }
    void openPanelQueuesWhatItConfirms() {
        QFETCH(bool, fromWelcome);
        QFETCH(bool, allFiles);
        QFETCH(QString, typed);
        QFETCH(QStringList, queued);
        for (const char* name : {"a.flac", "b.mkv", "c.webm", "d.ogg", "notes.txt"}) {
            std::ofstream(m_dir / name) << "x";
        }
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        if (fromWelcome) {
            welcome()->findChild<QPushButton*>(QStringLiteral("chooseFiles"))->click();
        } else {
            QTest::keySequence(m_window.get(), QKeySequence::Open);
        }
        auto* panel = m_window->findChild<QFileDialog*>(QStringLiteral("openPanel"));
        QVERIFY(panel);
        QVERIFY(QTest::qWaitForWindowExposed(panel));
        const QStringList filters = panel->nameFilters();
        QCOMPARE(filters.size(), 2);
        for (const char* pattern : {"*.mkv", "*.webm", "*.flac", "*.ogg", "*.mp3", "*.mov"}) {
            QVERIFY2(filters.first().contains(QLatin1String(pattern)), pattern);
        }
        QCOMPARE(filters.last(), QStringLiteral("All files (*)"));
        if (allFiles) {
            panel->selectNameFilter(filters.last());
        }
        panel->setDirectory(QString::fromStdString(m_dir.path()));
        if (typed.isEmpty()) {
            QTest::keyClick(panel, Qt::Key_Escape);
        } else {
            auto* name = panel->findChild<QLineEdit*>(QStringLiteral("fileNameEdit"));
            name->setText(typed);
            auto* buttons = panel->findChild<QDialogButtonBox*>(QStringLiteral("buttonBox"));
            QTest::mouseClick(buttons->button(QDialogButtonBox::Open), Qt::LeftButton);
        }
        QTRY_VERIFY(!panel->isVisible());
        QCOMPARE(queuedNames(), queued);
    }

    void clearFinishedShownWhileAJobHasEnded_data() {
        QTest::addColumn<JobState>("state");
        QTest::addColumn<QString>("control"); // of the ended row
        // Finished without a report, the row has nothing to show or reveal.
        QTest::newRow("finished") << JobState::finished() << QString();
        QTest::newRow("failed") << JobState::failed(QStringLiteral("no")) << "edit-delete";
        QTest::newRow("cancelled") << JobState::cancelled() << "edit-delete";
    }
    void clearFinishedShownWhileAJobHasEnded() {
        QFETCH(JobState, state);
        QFETCH(QString, control);
        QAction* clear = m_window->clearFinishedAction();
        m_fixture->queue.add({QueueFixture::file(QStringLiteral("a.wav")),
                              QueueFixture::file(QStringLiteral("b.wav"))});
        QVERIFY(!clear->isVisible());
        LevelingJob* second = m_fixture->queue.jobs().at(1);
        second->setState(state);
        QVERIFY(clear->isVisible());
        JobRow* row = m_window->jobList()->rowAt(1);
        QCOMPARE(row->controlSymbol(), control);
        QCOMPARE(row->findChild<QToolButton*>(QStringLiteral("control"))->isVisible(),
                 !control.isEmpty());
        QVERIFY(!row->findChild<QLabel*>(QStringLiteral("detail"))->isVisible());
        m_fixture->queue.remove(second);
        QVERIFY(!clear->isVisible());
        m_fixture->queue.jobs().at(0)->setState(state);
        QVERIFY(clear->isVisible());
        clear->trigger();
        QVERIFY(m_fixture->queue.jobs().isEmpty());
        QVERIFY(!clear->isVisible());
        QVERIFY(welcome()->isVisible()); // after the last job as before the first
    }

    void rowsShowTheirStateAndControl_data() {
        QTest::addColumn<int>("row");
        QTest::addColumn<QString>("symbol");
        QTest::addColumn<QString>("tooltip");
        QTest::addColumn<bool>("progress");
        QTest::addColumn<QString>("detail");
        QTest::addColumn<QString>("warning"); // under a warning mark
        // Rows of fillWithEveryState.
        QTest::newRow("running") << 0 << "process-stop"
                                 << "Cancel" << true << QString() << QString();
        QTest::newRow("waiting") << 1 << "process-stop"
                                 << "Cancel" << false << QString() << QString();
        QTest::newRow("finished audio")
            << 2 << "folder-open"
            << "Show in File Manager" << false
            << QStringLiteral("gain -3.2 to +6.5 dB \u00b7 limiter 1.4 dB \u00b7 talk leveled.m4a")
            << QString();
        QTest::newRow("finished video with sidecar and warnings")
            << 3 << "folder-open"
            << "Show in File Manager" << false
            << QStringLiteral("gain -3.2 to +6.5 dB \u00b7 limiter 1.4 dB \u00b7 interview "
                              "leveled.mov + interview leveled.wav")
            << QStringLiteral("The data (tmcd) cannot be kept in QuickTime.\nThe output is 1.4 LU "
                              "quieter than the target of -16.0 LUFS.");
        QTest::newRow("failed") << 4 << "edit-delete"
                                << "Remove" << false << QString() << QString();
        QTest::newRow("cancelled") << 5 << "edit-delete"
                                   << "Remove" << false << QString() << QString();
    }
    void rowsShowTheirStateAndControl() {
        QFETCH(int, row);
        QFETCH(QString, symbol);
        QFETCH(QString, tooltip);
        QFETCH(bool, progress);
        QFETCH(QString, detail);
        QFETCH(QString, warning);
        fillWithEveryState(m_fixture->queue);
        JobRow* jobRow = m_window->jobList()->rowAt(row);
        QVERIFY(jobRow);
        LevelingJob& job = jobRow->job();
        // A name too long for its row (the first) keeps its start and extension.
        const auto* name = jobRow->findChild<ElidedLabel*>(QStringLiteral("name"));
        QCOMPARE(name->fullText(), FilePaths::shownName(job.sourceURL()));
        QCOMPARE(name->text().contains(QChar(0x2026)), row == 0);
        QVERIFY(name->text().startsWith(name->fullText().left(6)));
        QVERIFY(name->text().endsWith(name->fullText().right(4)));

        QCOMPARE(jobRow->controlSymbol(), symbol);
        auto* control = jobRow->findChild<QToolButton*>(QStringLiteral("control"));
        QCOMPARE(control->toolTip(), tooltip);
        QCOMPARE(control->accessibleName(), tooltip);
        auto* bar = jobRow->findChild<QProgressBar*>(QStringLiteral("progress"));
        QCOMPARE(bar->isVisible(), progress);
        if (progress) {
            QCOMPARE(bar->value() * 1.0 / bar->maximum(), 0.4);
        }
        auto* status = jobRow->findChild<QLabel*>(QStringLiteral("status"));
        QCOMPARE(status->text(), job.statusText());
        if (job.state().kind == JobState::Kind::failed) {
            // Red, and the three-line message cut after two.
            const QColor ink = status->palette().color(QPalette::WindowText);
            QVERIFY(ink.red() > 2 * ink.green() && ink.red() > 2 * ink.blue());
            const int line = status->fontMetrics().lineSpacing();
            QVERIFY(status->height() <= 2 * line && status->height() > line);
        }
        auto* detailLabel = jobRow->findChild<ElidedLabel*>(QStringLiteral("detail"));
        QCOMPARE(detailLabel->isVisible(), !detail.isEmpty());
        QCOMPARE(detailLabel->fullText(), detail);
        QCOMPARE(jobRow->findChild<QWidget*>(QStringLiteral("notice"))->isVisible(),
                 !warning.isEmpty());
        QCOMPARE(jobRow->findChild<QLabel*>(QStringLiteral("noticeText"))->text(), warning);
        QCOMPARE(jobRow->findChild<QLabel*>(QStringLiteral("warningMark"))->accessibleName(),
                 QStringLiteral("Warning"));
        QCOMPARE(jobRow->accessibleDescription().contains(QStringLiteral("Warning: ")),
                 !warning.isEmpty());
        // The list's accessible item carries what the row's widgets show.
        const QString description = m_window->jobList()
                                        ->view()
                                        ->model()
                                        ->index(row, 0)
                                        .data(Qt::AccessibleDescriptionRole)
                                        .toString();
        QVERIFY(description.startsWith(job.statusText()));
        QCOMPARE(description.contains(QStringLiteral("gain -3.2 to +6.5 dB")), !detail.isEmpty());

        const JobState::Kind kind = job.state().kind;
        const QUrl source = job.sourceURL();
        QTest::mouseClick(control, Qt::LeftButton);
        const bool listed =
            std::any_of(m_fixture->queue.jobs().begin(), m_fixture->queue.jobs().end(),
                        [&source](const LevelingJob* j) { return j->sourceURL() == source; });
        switch (kind) {
        case JobState::Kind::waiting:
            QVERIFY(listed);
            QCOMPARE(job.state().kind, JobState::Kind::cancelled);
            // The row turns into a removable one at once.
            QCOMPARE(jobRow->controlSymbol(), QStringLiteral("edit-delete"));
            break;
        case JobState::Kind::running:
            QVERIFY(listed);
            QVERIFY(job.cancelToken()->isCancelled());
            break;
        case JobState::Kind::finished:
            QVERIFY(listed);
            // Only the leveled file, never its sidecar.
            QCOMPARE(m_fixture->revealer.revealed,
                     QList<QList<QUrl>>{{FilePaths::toUrl(job.report()->outputURL)}});
            break;
        case JobState::Kind::failed:
        case JobState::Kind::cancelled:
            QVERIFY(!listed);
            break;
        }
    }

    void contextMenuByState_data() {
        QTest::addColumn<int>("row");
        QTest::addColumn<QStringList>("items");
        const QStringList cancel{"Cancel"};
        const QStringList finished{"Show in File Manager", "Open", "Show Loudness Graph", "--",
                                   "Remove"};
        const QStringList retry{"Retry", "Remove"};
        QTest::newRow("running") << 0 << cancel;
        QTest::newRow("waiting") << 1 << cancel;
        QTest::newRow("finished") << 2 << finished;
        QTest::newRow("finished with sidecar") << 3 << finished;
        QTest::newRow("failed") << 4 << retry;
        QTest::newRow("cancelled") << 5 << retry;
    }
    void contextMenuByState() {
        QFETCH(int, row);
        QFETCH(QStringList, items);
        fillWithEveryState(m_fixture->queue);
        LevelingJob* job = m_fixture->queue.jobs().at(row);
        std::unique_ptr<QMenu> menu(m_window->contextMenu(*job));
        QCOMPARE(menuTitles(*menu), items);

        // Show in File Manager selects the output and its sidecar, unlike the row's button.
        if (items.size() > 2) {
            menu->actions().constFirst()->trigger();
            QList<QUrl> shown{FilePaths::toUrl(job->report()->outputURL)};
            if (row == 3) {
                shown << FilePaths::toUrl(*job->report()->audioSidecarURL);
            }
            QCOMPARE(m_fixture->revealer.revealed, QList<QList<QUrl>>{shown});
        }
        // Retry queues the same file again, at the end; the others take the job out.
        const bool retry = items.first() == QStringLiteral("Retry");
        const QUrl source = job->sourceURL();
        const auto count = m_fixture->queue.jobs().size();
        (retry ? menu->actions().constFirst() : menu->actions().constLast())->trigger();
        const auto& jobs = m_fixture->queue.jobs();
        QVERIFY(!jobs.contains(job));
        QCOMPARE(jobs.size(), retry ? count : count - 1);
        if (retry) {
            QCOMPARE(jobs.constLast()->sourceURL(), source);
            QVERIFY(jobs.constLast()->state().isActive());
        }
    }

    void loudnessGraphShowsReadsOutExportsAndGoesWithTheRow() {
        fillWithEveryState(m_fixture->queue);
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        // A double-click shows the graph of a finished row only.
        JobRow* running = m_window->jobList()->rowAt(0);
        QTest::mouseDClick(running, Qt::LeftButton, {}, running->rect().center());
        QVERIFY(!m_window->findChild<LoudnessGraphWindow*>());
        LevelingJob* job = m_fixture->queue.jobs().at(2);
        std::unique_ptr<QMenu> menu(m_window->contextMenu(*job));
        menu->actions().at(2)->trigger();
        auto* graph = m_window->findChild<LoudnessGraphWindow*>();
        QVERIFY(graph);
        QVERIFY(QTest::qWaitForWindowExposed(graph));
        QVERIFY(graph->windowTitle().contains(QStringLiteral("talk leveled.m4a")));
        // The same window again, not a second one; another row's is another.
        QCOMPARE(m_window->showLoudnessGraph(*job), graph);
        JobRow* finished = m_window->jobList()->rowAt(3);
        QTest::mouseDClick(finished, Qt::LeftButton, {}, finished->rect().center());
        QTRY_COMPARE(m_window->findChildren<LoudnessGraphWindow*>().size(), 2);

        // Over the second half of the talk, in the pause.
        LoudnessPlotView* view = graph->view();
        const QPoint at(static_cast<int>(view->plot().xFor(110.0)), view->height() / 2);
        QMouseEvent move(QEvent::MouseMove, at, view->mapToGlobal(at), Qt::NoButton, {}, {});
        QApplication::sendEvent(view, &move);
        QTRY_VERIFY2(graph->readout()->text().startsWith(QStringLiteral("0:01:4")),
                     qPrintable(graph->readout()->text()));
        QVERIFY2(graph->readout()->text().contains(
                     QStringLiteral("input \u221220.0 LUFS \u00b7 output \u221214.0 LUFS \u00b7 "
                                    "gain +6.0 dB \u00b7 limiter 0.0 dB \u00b7 pause")),
                 qPrintable(graph->readout()->text()));

        // Each format's drawing the plot's own tests pin; the window exports at its size.
        const QTemporaryDir dir;
        QVERIFY(graph->exportTo(dir.filePath(QStringLiteral("graph.png"))));
        QCOMPARE(QImage(dir.filePath(QStringLiteral("graph.png"))).size(), view->size());
        QVERIFY(!graph->exportTo(dir.filePath(QStringLiteral("missing/graph.png"))));
        QTRY_VERIFY(graph->findChild<QMessageBox*>(QStringLiteral("exportError")));

        // Export… opens the save panel over the graph.
        graph->exportButton()->click();
        auto* panel = graph->findChild<QFileDialog*>(QStringLiteral("exportPanel"));
        QVERIFY(panel);
        panel->reject();

        // Nothing of the series stays behind once the row goes.
        QPointer<LoudnessGraphWindow> watched(graph);
        const std::weak_ptr<const LevelingSeries> series = job->report()->series;
        m_fixture->queue.remove(job);
        QTRY_VERIFY(!watched);
        QTRY_VERIFY(series.expired());
    }

    void deleteCancelsOrRemovesTheSelectedJob() {
        QListView* view = selectInEveryState(1);
        LevelingJob* waiting = m_fixture->queue.jobs().at(1);
        QTest::keyClick(view, Qt::Key_Delete);
        QCOMPARE(waiting->state().kind, JobState::Kind::cancelled);
        QVERIFY(m_fixture->queue.jobs().contains(waiting));
        QTest::keyClick(view, Qt::Key_Delete);
        QVERIFY(!m_fixture->queue.jobs().contains(waiting));
    }

    void copyTakesTheSelectedReport() {
        QTest::keySequence(selectInEveryState(3), QKeySequence::Copy);
        QCOMPARE(
            QGuiApplication::clipboard()->text(),
            QStringLiteral("interview.mov: -23.4 \u2192 -16.0 LUFS \u00b7 3:25 leveled in 42s\n"
                           "  gain -3.2 to +6.5 dB \u00b7 limiter 1.4 dB \u00b7 interview "
                           "leveled.mov + interview leveled.wav"));
    }

    void focusFollowsTheFirstJobAndTabReachesTheList() {
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        welcome()->setFocus();
        m_fixture->queue.add({QueueFixture::file(QStringLiteral("a.wav"))});
        QListView* view = m_window->jobList()->view();
        QCOMPARE(QApplication::focusWidget(), view);

        view->clearFocus();
        for (int press = 0; press < 6 && QApplication::focusWidget() != view; ++press) {
            QTest::keyClick(QApplication::focusWidget() ? QApplication::focusWidget()
                                                        : m_window.get(),
                            Qt::Key_Tab);
        }
        QCOMPARE(QApplication::focusWidget(), view);
    }

    // The welcome, jobs in every state with one selected, and the settings
    // with every caption, in light and dark colours, switched while the
    // windows are open as when the desktop changes its scheme.
    void everyTextIsReadable_data() {
        QTest::addColumn<QPalette>("palette");
        QTest::newRow("light") << QApplication::style()->standardPalette();
        QTest::newRow("dark") << darkPalette();
    }
    void everyTextIsReadable() {
        QFETCH(QPalette, palette);
        const QPalette before = QApplication::palette();
        TestSettings settings;
        settings.settings.setSaveMode(SaveMode::fixedFolder);
        settings.settings.setExportWAVWithVideo(true);
        SettingsWindow settingsWindow(settings.settings, m_updater);
        settingsWindow.show();
        QApplication::setPalette(palette);
        QCoreApplication::processEvents();
        QStringList unreadable = unreadableTexts(*m_window);
        selectInEveryState(3);
        unreadable << unreadableTexts(*m_window) << unreadableTexts(settingsWindow);
        QApplication::setPalette(before);
        QCoreApplication::processEvents();
        QVERIFY2(unreadable.isEmpty(), qPrintable(unreadable.join(QStringLiteral("\n"))));
    }

    // A German desktop gets German windows: every text of the main window, its
    // menus and the settings window changes, but names and units that German
    // writes the same way.
    void germanLocaleTranslatesEveryText() {
        TestSettings settings;
        settings.settings.setSaveMode(SaveMode::fixedFolder);
        settings.settings.setExportWAVWithVideo(true);
        const auto words = [&] {
            AppUpdater updater; // its notes are in the language it starts in
            MainWindow window(m_fixture->queue, updater, nullptr);
            SettingsWindow settingsWindow(settings.settings, updater);
            return wordsOf(window) + wordsOf(settingsWindow);
        };
        const QStringList english = words();
        const QLocale before;
        QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
        const auto restore = qScopeGuard([&] { QLocale::setDefault(before); });
        const AppTranslations translations{QLocale()};
        QVERIFY(translations.loaded());
        const QStringList german = words();

        for (const char* expected :
             {"&Datei", "\u00d6&ffnen\u2026", "Ein&stellungen\u2026", "Ostrand-Einstellungen",
              "Video- oder Audiodatei hierher ziehen"}) {
            QVERIFY2(german.contains(QString::fromUtf8(expected)), expected);
        }
        QStringList same{
            QStringLiteral("Ostrand"), QStringLiteral("Audio"), QStringLiteral("&Mono"),
            QStringLiteral("Updates"),
            QStringLiteral("Version %1 (%2)").arg(AppInfo::version(), AppInfo::buildNumber())};
        for (const LoudnessPreset& preset : LoudnessPreset::all()) {
            same << preset.name;
        }
        QStringList untranslated;
        for (const QString& text : english) {
            // Figures and units ("-16.0 LUFS") read the same in every language.
            const bool hasWords = text.contains(QRegularExpression(QStringLiteral("[a-z]{3}")));
            if (hasWords && german.contains(text) && !same.contains(text)) {
                untranslated << text;
            }
        }
        QVERIFY2(untranslated.isEmpty(), qPrintable(untranslated.join(u'\n')));
    }

    void checkForUpdatesFollowsTheUpdater() {
        SwitchableUpdater updater;
        MainWindow window(m_fixture->queue, updater, nullptr);
        QVERIFY(!window.checkForUpdatesAction()->isEnabled());
        updater.setCanCheckForUpdates(true);
        QVERIFY(window.checkForUpdatesAction()->isEnabled());
        QSignalSpy started(&updater, &AppUpdater::checkStarted);
        window.checkForUpdatesAction()->trigger();
        QCOMPARE(started.count(), 1);
    }

private:
    WelcomePanel* welcome() const { return m_window->findChild<WelcomePanel*>(); }
    DropHighlight* highlight() const { return m_window->findChild<DropHighlight*>(); }
    QStringList queuedNames() const {
        QStringList names;
        for (const LevelingJob* job : m_fixture->queue.jobs()) {
            names << FilePaths::shownName(job->sourceURL());
        }
        return names;
    }
    bool dragEnter(QMimeData& data) {
        QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(m_window.get(), &enter);
        return enter.isAccepted();
    }
    // The jobs of fillWithEveryState with one selected, the list focused.
    QListView* selectInEveryState(int row) {
        fillWithEveryState(m_fixture->queue);
        // Keys go to the active window; if it never is, the test fails there.
        (void)QTest::qWaitForWindowActive(m_window.get());
        QListView* view = m_window->jobList()->view();
        view->setCurrentIndex(view->model()->index(row, 0));
        view->setFocus();
        return view;
    }

    AppUpdater m_updater;
    TempDir m_dir;
    std::unique_ptr<QueueFixture> m_fixture;
    std::unique_ptr<MainWindow> m_window;
};

QTEST_MAIN(MainWindowTest)
#include "MainWindowTest.moc"
