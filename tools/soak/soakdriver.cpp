// Preloaded into the real program by scripts/soak.sh: plays an operator for
// a long session and measures the process as it goes.
//
// BRIVORA_SOAK_SECONDS=<n>   length of the session (default 1800)
// BRIVORA_SOAK_LOG=<file>    one line per sample and a summary at the end
// BRIVORA_SOAK_OUTPUT=<dir>  where the program's files land, checked at the end
//
// Schedule, in seconds from the first picture: every shooting type in turn
// (one every 15 s), a photo every 10 s, a 20 s recording every 180 s from
// 25 s on (every half session when shorter), the secondary window opened
// for 10 s every 120 s from 48 s on (every half session when shorter),
// never while recording. Unplugging
// is the virtual camera's (VCAM_0_UNPLUG_AFTER with VCAM_0_UNPLUG_REPEAT).
#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QImageReader>
#include <QTimer>
#include <QWidget>

#include <opencv2/videoio.hpp>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

struct Sample
{
    long rssKb = 0;
    int threads = 0;
    int fds = 0;
};

Sample sample()
{
    Sample s;
    QFile status("/proc/self/status");
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                s.rssKb = line.mid(6).trimmed().split(' ').value(0).toLong();
            else if (line.startsWith("Threads:"))
                s.threads = line.mid(8).trimmed().toInt();
        }
    }
    s.fds = QDir("/proc/self/fd")
                    .entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot)
                    .size();
    return s;
}

// Threads and open files at their fewest over half a second: one that is
// there only for a moment (a capture loop's reader starting or ending as the
// loop starts or stops reading) does not count.
Sample quietSample()
{
    Sample fewest = sample();
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
        const Sample s = sample();
        fewest.threads = qMin(fewest.threads, s.threads);
        fewest.fds = qMin(fewest.fds, s.fds);
        fewest.rssKb = s.rssKb;
    }
    return fewest;
}

// What the open files and threads are, for a report when their counts differ.
QString inventory()
{
    QStringList items;
    const QDir fds("/proc/self/fd");
    for (const QString &fd : fds.entryList(QDir::Files | QDir::System | QDir::NoDotAndDotDot))
        items << fd + ":" + QFile::symLinkTarget(fds.filePath(fd));
    const QDir tasks("/proc/self/task");
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm(tasks.filePath(task + "/comm"));
        if (comm.open(QIODevice::ReadOnly))
            items << "thread:" + QString::fromUtf8(comm.readAll().trimmed());
    }
    return items.join(' ');
}

void log(const QString &line)
{
    QFile file(qEnvironmentVariable("BRIVORA_SOAK_LOG"));
    if (file.open(QIODevice::Append | QIODevice::Text))
        file.write((line + "\n").toUtf8());
}

QAbstractButton *button(const char *name)
{
    for (QWidget *top : QApplication::topLevelWidgets())
        if (auto *b = top->findChild<QAbstractButton *>(name))
            return b;
    return nullptr;
}

void click(const char *name)
{
    if (QAbstractButton *b = button(name))
        b->click();
    else
        log(QString("missing %1").arg(name));
}

// Every photo and recording the session left: readable, with a picture.
void checkFiles(int *files, int *unreadable)
{
    QDirIterator it(qEnvironmentVariable("BRIVORA_SOAK_OUTPUT"), QDir::Files,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString suffix = QFileInfo(path).suffix().toLower();
        bool ok;
        if (suffix == "avi") {
            cv::VideoCapture cap(path.toStdString(), cv::CAP_OPENCV_MJPEG);
            cv::Mat frame;
            ok = cap.isOpened() && cap.read(frame) && !frame.empty();
        } else if (suffix == "jpg" || suffix == "png" || suffix == "bmp" || suffix == "tiff") {
            ok = !QImageReader(path).read().isNull();
        } else {
            continue;
        }
        ++*files;
        if (!ok) {
            ++*unreadable;
            log("unreadable " + path);
        }
    }
}

class Driver : public QObject
{
public:
    Driver()
    {
        length = qEnvironmentVariableIntValue("BRIVORA_SOAK_SECONDS");
        if (length <= 0)
            length = 1800;
        recordEvery = qMin(180, length / 2);
        windowEvery = qMin(120, length / 2);
        connect(&tick, &QTimer::timeout, this, [this] { step(); });
        tick.start(1000);
        clock.start();
    }

private:
    void step()
    {
        const int t = int(clock.elapsed() / 1000);
        if (t == last)
            return;
        last = t;
        const Sample s = sample();
        if (t % 5 == 0)
            log(QString("t=%1 rss_kb=%2 threads=%3 fds=%4")
                        .arg(t)
                        .arg(s.rssKb)
                        .arg(s.threads)
                        .arg(s.fds));
        if (t == 60)
            oneMinute = s;
        if (t == 20) {
            start = quietSample(); // settled, quiet: no recording, no secondary window
            log("start " + inventory());
        }

        if (t >= length) {
            finish(t);
            return;
        }
        // Both happen once within the first minute too, so that the memory
        // they take for good is in place before the one-minute measure.
        const int inRecordCycle = t % recordEvery;
        const bool recordingDue = inRecordCycle >= 25 && inRecordCycle < 45 && t + 25 < length;
        if (recordingDue && !recording) {
            click("btnShootingVideo");
            recording = true;
        } else if (!recordingDue && recording) {
            click("btnShootingVideo");
            recording = false;
        }
        const int inWindowCycle = t % windowEvery;
        const bool windowDue =
                !recording && inWindowCycle >= 48 && inWindowCycle < 58 && t + 15 < length;
        if (windowDue != windowOpen && !recording) {
            click("btnSecCamCon_2");
            windowOpen = windowDue;
        }
        if (t % 15 == 0) {
            static const char *const types[] = { "rb_Shooting_10", "rb_Shooting_11",
                                                 "rb_Shooting_12", "rb_Shooting_13" };
            if (!recording)
                click(types[(t / 15) % 4]);
        }
        if (t % 10 == 5 && !recording)
            click("btnShooting");
    }

    void finish(int t)
    {
        if (recording)
            click("btnShootingVideo");
        if (windowOpen)
            click("btnSecCamCon_2");
        recording = windowOpen = false;
        tick.stop();
        // A quiet while, then the last measures and the files.
        QTimer::singleShot(8000, this, [this, t] {
            const Sample end = quietSample();
            log("end " + inventory());
            int files = 0, unreadable = 0;
            checkFiles(&files, &unreadable);
            log(QString("summary seconds=%1 rss_start_kb=%2 rss_1min_kb=%3 rss_end_kb=%4 "
                        "threads_start=%5 "
                        "threads_end=%6 fds_start=%7 fds_end=%8 files=%9 unreadable=%10")
                        .arg(t)
                        .arg(start.rssKb)
                        .arg(oneMinute.rssKb)
                        .arg(end.rssKb)
                        .arg(start.threads)
                        .arg(end.threads)
                        .arg(start.fds)
                        .arg(end.fds)
                        .arg(files)
                        .arg(unreadable));
            QCoreApplication::quit();
        });
    }

    QTimer tick;
    QElapsedTimer clock;
    int length = 0;
    int recordEvery = 180;
    int windowEvery = 120;
    int last = -1;
    bool recording = false;
    bool windowOpen = false;
    Sample start, oneMinute;
};

// Waits for the program's window to show its first picture, then starts
// the session in the GUI thread.
struct Starter
{
    Starter()
    {
        if (qEnvironmentVariableIsEmpty("BRIVORA_SOAK_LOG"))
            return;
        std::thread([] {
            static std::atomic<bool> started{ false };
            while (!started) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
                QCoreApplication *app = QCoreApplication::instance();
                if (!app)
                    continue;
                QMetaObject::invokeMethod(
                        app,
                        [] {
                            if (!started && button("btnShooting")) {
                                new Driver;
                                started = true;
                            }
                        },
                        Qt::QueuedConnection);
            }
        }).detach();
    }
};
Starter starter;

} // namespace
