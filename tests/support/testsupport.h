#ifndef TESTSUPPORT_H
#define TESTSUPPORT_H

#include <QList>
#include <QMap>
#include <QPair>
#include <QVariant>
#include <QElapsedTimer>
#include <QImage>
#include <QObject>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QTimer>

#include <functional>
#include <memory>

#include <opencv2/core.hpp>

// A picture of width x height in format, every pixel colour.
QImage filledImage(int width, int height, QColor colour,
                   QImage::Format format = QImage::Format_RGB32);

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
    QString output; // standard output and error together
    QString errorOutput; // standard error alone
    QStringList boxes; // "title\ttext" per warning box shown
    QStringList boxButtons; // per box: its buttons' texts joined by "|"
};

// Runs the built program in workDir with HOME at home, the virtual camera
// configured by vcam (VCAM_* variables; an empty map still preloads it with
// its defaults) and the box answerer preloaded. quitAfterMs > 0 asks the
// program to quit after that long.
ProgramRun runProgram(const QString &workDir, const QString &home,
                      const QMap<QString, QString> &vcam, int quitAfterMs, int timeoutMs = 60000,
                      const QString &program = QString());

// Whether the test runs under user-mode emulation (an arm64 build tested
// on an amd64 machine, see scripts/arm64/emulate.sh), which runs the
// program several times slower than the machines it is built for.
bool underEmulation();

// Checks of real-time pace (frames a second, a photo within a deadline of
// the page settling) measure the emulator rather than the program there:
// such a test function starts with this.
#define SKIP_WITHOUT_REAL_TIME_PACE()                                       \
  do {                                                                      \
    if (underEmulation())                                                   \
      QSKIP("needs real-time pace, which user-mode emulation cannot give"); \
  } while (false)

// The environment of this process without any VCAM_* variable.
QProcessEnvironment cleanEnvironment();

// What the virtual camera recorded about node N in the state folder dir:
// the key=value lines of dir/video<N>.state; empty when there is none yet.
QMap<QString, QString> readVirtualCameraState(const QString &dir, int node);

// Every key of "system.ini" with the value a first run writes, in the
// file's order; the output folder is given (it depends on HOME).
QList<QPair<QString, QVariant>> factorySettings(const QString &documentsFolder);

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

// No camera listed yet, and the first one to be opened at the first of its
// sizes in its first format.
void useFirstCamera();

// Node 0 of the virtual camera offering formats ("YUYV,MJPG") at sizes
// ("640x480,320x240"), and the list of cameras found anew.
void discoverCamera(const char *formats, const char *sizes);

// Once per program of tests that open cameras in-process: cameras opened
// through Video4Linux2 and the list of output sizes filled, as the program
// has them after its start.
void prepareCameraTests();

// Once per program of tests that build the main window in-process: as
// prepareCameraTests, and the program's pictures found in the build folder.
void prepareWindowTests();

// Before each such test: the settings of a first run, except photos going
// to documents (when given) at 640x480 (small and quick) with no camera
// listed yet.
void resetWindowSettings(const QString &documents = QString());

// The folders of a test with the virtual camera, made anew for each test:
// the camera's state folder and the program's output and scratch folders.
// Test classes take it as a base, so that their tests name the folders as
// members.
struct CameraFolders
{
    std::unique_ptr<QTemporaryDir> m_state; // where the virtual camera records
    std::unique_ptr<QTemporaryDir> m_documents; // the program's output folder
    std::unique_ptr<QTemporaryDir> m_scratch; // the test's own files

    // Before each test: no VCAM_* variable left from the test before, new
    // folders, and the camera pointed at its state folder (VCAM_STATE_DIR).
    // False when a folder cannot be made.
    bool makeFresh();

    // What the virtual camera recorded about node, and one value of it.
    QMap<QString, QString> state(int node) const;
    QString stateValue(int node, const char *key) const;
    int stateNumber(int node, const char *key) const;

    // The files in the output folder, by name, and the path of one of them.
    QStringList documents() const;
    QString document(const QString &name) const;
};

// The page number a picture of the virtual camera's scripted page shows
// (read from its row of eight blocks), or -1 when the blocks cannot be read
// or something dark (a hand) lies across the paper around them. The picture
// is BGR or grey at any size with the frame's proportions.
int readPageNumber(const cv::Mat &picture);

#endif // TESTSUPPORT_H
