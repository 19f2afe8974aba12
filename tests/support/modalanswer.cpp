// Preloaded into the real program by tests that run it as a subprocess.
//
// BRIVORA_MODAL_LOG=<file>: every warning box the program opens is written to
//   the file as one line "<window title>\t<text>\t<button texts>" (the
//   buttons' texts joined by "|", in the box's order) and answered with OK
//   once it is on screen, so a test can count the boxes and read their texts.
// BRIVORA_QUIT_AFTER_MS=<n>: the application is asked to quit n ms after the
//   library is loaded, so a test can let the program run a while and still
//   see it end normally.
#include <QApplication>
#include <QFile>
#include <QMessageBox>
#include <QPushButton>
#include <QStringList>
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

// Polls until the box is the active modal widget, records it and presses OK.
void answerWhenShown()
{
    QTimer::singleShot(50, [] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box || !box->isVisible()) {
            answerWhenShown();
            return;
        }
        QStringList buttons;
        for (QAbstractButton *button : box->buttons())
            buttons << button->text();
        appendToLog(box->windowTitle() + "\t" + box->text() + "\t" + buttons.join('|'));
        if (QAbstractButton *ok = box->button(QMessageBox::Ok))
            ok->click();
        else
            box->reject();
    });
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
            if (QCoreApplication *app = QCoreApplication::instance())
                QMetaObject::invokeMethod(app, "quit", Qt::QueuedConnection);
        }).detach();
    }
};
QuitTimer quitTimer;

} // namespace

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
