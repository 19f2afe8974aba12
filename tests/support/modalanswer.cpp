// Preloaded into the real program by tests that run it as a subprocess.
//
// BRIVORA_MODAL_LOG=<file>: every warning box the program opens is written to
//   the file as one line "<window title>\t<text>\t<button texts>" (the
//   buttons' texts joined by "|", in the box's order) and answered with OK
//   once it is on screen, so a test can count the boxes and read their texts.
// BRIVORA_QUIT_AFTER_MS=<n>: the application is asked to quit n ms after the
//   library is loaded, so a test can let the program run a while and still
//   see it end normally.
// BRIVORA_STARTUP_REPORT=<folder>: what start-up left behind is written to
//   the folder: splash.png, the picture given to the splash screen;
//   logo.png, the main window's logo as shown when the event loop starts;
//   report.txt, lines "exe_path=<folder>" and "resolutions=<WxH,...>" read
//   from the settings record at that moment.
#include "activebox.h"
#include "config.h"

#include <QApplication>
#include <QFile>
#include <QLabel>
#include <QMessageBox>
#include <QSplashScreen>
#include <QStringList>
#include <QThread>
#include <QTimer>

#include <chrono>
#include <cstdlib>
#include <dlfcn.h>
#include <thread>

namespace {

using WarningFunction = QMessageBox::StandardButton (*)(QWidget *, const QString &, const QString &,
                                                        QMessageBox::StandardButtons,
                                                        QMessageBox::StandardButton);

void appendToLog(const QString &line)
{
    const QString path = qEnvironmentVariable("BRIVORA_MODAL_LOG");
    if (path.isEmpty())
        return;
    QFile log(path);
    if (log.open(QIODevice::Append | QIODevice::Text))
        log.write((line + "\n").toUtf8());
}

// Polls until the box is the active modal widget, answers it and records it.
void answerWhenShown()
{
    QTimer::singleShot(50, [] {
        const std::optional<ShownBox> box = answerShownBox();
        if (!box) {
            answerWhenShown();
            return;
        }
        appendToLog(box->title + "\t" + box->text + "\t" + box->buttons.join('|'));
    });
}

// Asks the application to quit once its main event loop runs. A quit
// delivered earlier (while start-up processes events by hand, before
// exec()) would be lost, and a slow start-up (an emulated one) would then
// never end; so the request is repeated until the loop is there to leave.
void quitOnceTheLoopRuns()
{
    QCoreApplication *app = QCoreApplication::instance();
    if (QThread::currentThread()->loopLevel() > 0)
        app->quit();
    else
        QTimer::singleShot(50, app, &quitOnceTheLoopRuns);
}

struct QuitTimer
{
    QuitTimer()
    {
        const QByteArray after = qgetenv("BRIVORA_QUIT_AFTER_MS");
        if (after.isEmpty())
            return;
        const int ms = after.toInt();
        std::thread([ms] {
            std::this_thread::sleep_for(std::chrono::milliseconds(ms));
            // The application object may not exist yet.
            while (!QCoreApplication::instance())
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            QMetaObject::invokeMethod(QCoreApplication::instance(), &quitOnceTheLoopRuns,
                                      Qt::QueuedConnection);
        }).detach();
    }
};
QuitTimer quitTimer;

QString reportFolder()
{
    return qEnvironmentVariable("BRIVORA_STARTUP_REPORT");
}

// The program's settings record, found by name: the program exports its
// symbols; another program run with this library has none.
const Config *settingsRecord()
{
    auto *const *config = static_cast<Config *const *>(dlsym(RTLD_DEFAULT, "_ZN5Cache6configE"));
    return config ? *config : nullptr;
}

void writeStartupReport(const QString &folder)
{
    for (QWidget *window : QApplication::topLevelWidgets()) {
        if (auto *logo = window->findChild<QLabel *>("picLogo_2"))
            logo->pixmap(Qt::ReturnByValue).save(folder + "/logo.png");
    }
    QFile report(folder + "/report.txt");
    const Config *config = settingsRecord();
    if (!config || !report.open(QIODevice::WriteOnly | QIODevice::Text))
        return;
    QStringList sizes;
    for (const QSize &size : config->resolutions)
        sizes << QString("%1x%2").arg(size.width()).arg(size.height());
    report.write(QString("exe_path=%1\nresolutions=%2\n")
                         .arg(config->exe_path, sizes.join(','))
                         .toUtf8());
}

} // namespace

void QSplashScreen::setPixmap(const QPixmap &pixmap)
{
    static const auto real = reinterpret_cast<void (*)(QSplashScreen *, const QPixmap &)>(
            dlsym(RTLD_NEXT, "_ZN13QSplashScreen9setPixmapERK7QPixmap"));
    const QString folder = reportFolder();
    if (!folder.isEmpty())
        pixmap.save(folder + "/splash.png");
    real(this, pixmap);
}

// Everything main does before the event loop is done when it asks for it.
int QApplication::exec()
{
    static const auto real =
            reinterpret_cast<int (*)()>(dlsym(RTLD_NEXT, "_ZN12QApplication4execEv"));
    const QString folder = reportFolder();
    if (!folder.isEmpty())
        writeStartupReport(folder);
    return real();
}

QMessageBox::StandardButton QMessageBox::warning(QWidget *parent, const QString &title,
                                                 const QString &text, StandardButtons buttons,
                                                 StandardButton defaultButton)
{
    static const auto real = reinterpret_cast<WarningFunction>(dlsym(
            RTLD_NEXT,
            "_ZN11QMessageBox7warningEP7QWidgetRK7QStringS4_6QFlagsINS_14StandardButtonEES6_"));
    answerWhenShown();
    return real(parent, title, text, buttons, defaultButton);
}
