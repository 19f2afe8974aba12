#ifndef TESTSUPPORT_H
#define TESTSUPPORT_H

#include <QList>
#include <QMap>
#include <QPair>
#include <QVariant>
#include <QElapsedTimer>
#include <QObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>

// Answers warning boxes shown by the code under test in this process: each
// box that becomes the active modal widget is recorded and its OK pressed.
class ModalAnswerer : public QObject
{
    Q_OBJECT
public:
    explicit ModalAnswerer(QObject *parent = nullptr);

    struct Box
    {
        QString title;
        QString text;
    };
    QList<Box> boxes;

private slots:
    void poll();
};

// What a run of the real program left behind.
struct ProgramRun
{
    int exitCode = -1000;
    bool crashed = false;
    bool finished = false;
    QString output;        // standard output and error together
    QStringList boxes;     // "title\ttext" per warning box shown
};

// Runs the built program in workDir with HOME at home, the virtual camera
// configured by vcam (VCAM_* variables; an empty map still preloads it with
// its defaults) and the box answerer preloaded. quitAfterMs > 0 asks the
// program to quit after that long.
ProgramRun runProgram(const QString &workDir, const QString &home,
                      const QMap<QString, QString> &vcam, int quitAfterMs,
                      int timeoutMs = 60000, const QString &program = QString());

// The environment of this process without any VCAM_* variable.
QProcessEnvironment cleanEnvironment();

// What the virtual camera recorded about node N in the state folder dir:
// the key=value lines of dir/video<N>.state; empty when there is none yet.
QMap<QString, QString> readVirtualCameraState(const QString &dir, int node);

// Every key of "system.ini" with the value a first run writes, in the
// file's order; the output folder is given (it depends on HOME).
QList<QPair<QString, QVariant>> factorySettings(const QString &documentsFolder);

// Settings for files the program writes: into folder, named IMG_1, IMG_2,
// ..., photos as JPEG of quality 95.
void useNumberedOutput(const QString &folder);

// The longest time between two ticks of a 10 ms timer while it lives: how
// long the GUI thread was held at most.
class GapMeter : public QObject
{
public:
    explicit GapMeter(QObject *parent = nullptr);
    qint64 longest = 0;

private:
    QTimer timer;
    QElapsedTimer clock;
};

// How long one call held the calling (GUI) thread, in milliseconds.
qint64 heldFor(const std::function<void()> &call);

// Longest a GUI call may hold the GUI thread; AddressSanitizer makes every
// call several times slower, so its builds allow three times as long.
#ifdef __SANITIZE_ADDRESS__
constexpr qint64 guiCallLimitMs = 300;
#else
constexpr qint64 guiCallLimitMs = 100;
#endif
// A 10 ms timer's gap also counts waits for a core on a machine busy with
// other work, so it is held to a looser bound than the calls themselves.
constexpr qint64 timerGapLimitMs = 250;

// Removes every VCAM_* variable from this process's environment.
void clearVirtualCameraEnvironment();

#endif // TESTSUPPORT_H
