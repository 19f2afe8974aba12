// Output into a full file system or a folder that cannot be written:
// photos, recordings, joined images, PDF and TIFF. The program keeps
// running, the window is never held, a recording that fills the disk is
// closed readable.
#include "cache.h"
#include "camerainfo.h"
#include "imagemergingdialog.h"
#include "imagesavepdfortiffdialog.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "startup.h"
#include "testsupport.h"
#include "threads/recordingwriter.h"
#include "threads/imageprocessing.h"
#include "ui_mainwindowqcamera.h"
#include "windowsupport.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSignalSpy>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <opencv2/videoio.hpp>

#include <sys/mount.h>

#include <cerrno>
#include <memory>

namespace {

constexpr int frameDeadline = 30000;

int readableFrames(const QString &path, QSize *size)
{
    cv::VideoCapture cap(path.toStdString(), cv::CAP_OPENCV_MJPEG);
    int frames = 0;
    cv::Mat frame;
    while (cap.isOpened() && cap.read(frame) && !frame.empty()) {
        *size = QSize(frame.cols, frame.rows);
        ++frames;
    }
    return frames;
}

// Fills the file system holding folder until fewer than leave bytes are free.
void fill(const QString &folder, qint64 leave)
{
    QFile filler(QDir(folder).filePath("filler"));
    if (!filler.open(QIODevice::WriteOnly))
        return;
    const QByteArray block(64 * 1024, 'x');
    for (;;) {
        const qint64 freeBytes = QStorageInfo(folder).bytesAvailable();
        if (freeBytes <= leave)
            break;
        const qint64 n = qMin<qint64>(block.size(), freeBytes - leave);
        if (filler.write(block.constData(), n) <= 0 || !filler.flush())
            break;
    }
}

} // namespace

class tst_FullDisk : public QObject, private CameraFolders
{
    Q_OBJECT

private:
    QString m_mounted; // a small file system of our own, when the machine allows one

    // A folder on a file system of bytes in all, or an empty string when
    // none can be mounted here.
    QString smallFileSystem(int megabytes)
    {
        const QString dir = m_scratch->filePath("small");
        QDir().mkpath(dir);
        const QByteArray options = "size=" + QByteArray::number(megabytes) + "m";
        if (::mount("tmpfs", dir.toLocal8Bit().constData(), "tmpfs", 0, options.constData()) != 0) {
            qInfo("no file system of our own (%s): a folder that cannot be written instead",
                  strerror(errno));
            return QString();
        }
        m_mounted = dir;
        return dir;
    }

    // A folder path that runs through a file: nothing can be written there.
    QString unwritableFolder()
    {
        QFile file(m_scratch->filePath("plain-file"));
        file.open(QIODevice::WriteOnly);
        file.write("x");
        return m_scratch->filePath("plain-file/output");
    }

    // A full folder when possible, an unwritable one otherwise.
    QString fullFolder()
    {
        const QString dir = smallFileSystem(4);
        if (dir.isEmpty())
            return unwritableFolder();
        fill(dir, 0);
        return dir;
    }

    void attachCamera()
    {
        qputenv("VCAM_NODES", "0:camera");
        qputenv("VCAM_0_SIZES", "640x480");
        *Cache::cameras = CameraInfo::discover();
    }

    // Two small pictures in a folder that can be written.
    QStringList pictures()
    {
        QStringList paths;
        for (int i = 0; i < 2; ++i) {
            QImage image(320, 240, QImage::Format_RGB32);
            image.fill(i ? Qt::darkBlue : Qt::darkGreen);
            const QString path = m_scratch->filePath(QString("picture%1.jpg").arg(i));
            image.save(path);
            paths << path;
        }
        return paths;
    }

private slots:
    void initTestCase() { prepareCameraTests(); }

    void init()
    {
        QVERIFY(makeFresh());
        resetWindowSettings(); // the first run's output folder
    }

    void cleanup()
    {
        if (!m_mounted.isEmpty())
            ::umount2(m_mounted.toLocal8Bit().constData(), MNT_DETACH);
        m_mounted.clear();
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    void photoAndRecordingIntoAFullOrUnwritableFolderKeepTheProgramRunning_data()
    {
        QTest::addColumn<bool>("full");
        QTest::newRow("full file system") << true;
        QTest::newRow("folder through a file") << false;
    }

    void photoAndRecordingIntoAFullOrUnwritableFolderKeepTheProgramRunning()
    {
        QFETCH(bool, full);
        ModalAnswerer answerer;
        attachCamera();
        Cache::config->user_documentsLocation = full ? fullFolder() : unwritableFolder();
        MainWindowQCamera w;
        w.show();
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));

        GapMeter gaps;
        QList<qint64> held;
        held << heldFor([&] { QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton); });
        // The photo is reported (its name) even though nothing could be written.
        QTRY_VERIFY_WITH_TIMEOUT(!w.file_paths.value(0).isEmpty(), frameDeadline);
        held << heldFor([&] { QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton); });
        QVERIFY(w.isVideoShooting);
        QTest::qWait(1500);
        held << heldFor([&] { QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton); });
        QVERIFY(!w.isVideoShooting);
        QTRY_VERIFY_WITH_TIMEOUT(w.file_paths.value(1).endsWith(".avi"), frameDeadline);
        QVERIFY(!QFileInfo(w.file_paths.value(1)).exists()
                || QFileInfo(w.file_paths.value(1)).size() == 0);
        // Frames still come.
        const unsigned seen = view->m_imageProcessing->framesTaken;
        QTRY_VERIFY_WITH_TIMEOUT(view->m_imageProcessing->framesTaken > seen + 5, frameDeadline);
        qInfo("photo, recording start and stop held the window %lld, %lld, %lld ms; "
              "longest gap of a 10 ms timer: %lld ms",
              held[0], held[1], held[2], gaps.longest);
        for (qint64 ms : held)
            QVERIFY2(ms <= guiCallLimitMs, qPrintable(QString::number(ms)));
        QVERIFY2(gaps.longest <= timerGapLimitMs, qPrintable(QString::number(gaps.longest)));
    }

    void recordingThatFillsTheDiskIsClosedReadable()
    {
        const QString dir = smallFileSystem(8);
        if (dir.isEmpty())
            QSKIP("mounting a small file system is not allowed here");
        // Room for a few dozen frames beyond what the writer keeps free.
        fill(dir, 2500 * 1024);
        attachCamera();
        Cache::config->user_documentsLocation = dir;
        MainWindowQCamera w;
        QCameraView *view = w.ui->video;
        QVERIFY(waitOpen(view));
        GapMeter gaps;
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        const QString path = view->m_cameraRecorderPath;
        QTest::qWait(4000);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(!w.isVideoShooting);
        QSize size;
        const int frames = readableFrames(path, &size);
        qInfo("recording into 2.5 MB of room: %d readable frames, %lld bytes, %lld bytes left; "
              "longest gap %lld ms",
              frames, QFileInfo(path).size(), QStorageInfo(dir).bytesAvailable(), gaps.longest);
        // 4 s would need about 120 frames; the disk held fewer, all whole.
        QVERIFY2(frames >= 10 && frames < 110, qPrintable(QString::number(frames)));
        QCOMPARE(size, QSize(640, 480));
        QVERIFY2(gaps.longest <= timerGapLimitMs, qPrintable(QString::number(gaps.longest)));
    }

    void frameWriterSeesTheRoomLeft()
    {
        const QString dir = smallFileSystem(4);
        if (dir.isEmpty())
            QSKIP("mounting a small file system is not allowed here");
        QVERIFY(RecordingWriter::hasRoom(dir.toStdString(), 1024 * 1024));
        fill(dir, 1536 * 1024);
        QVERIFY(RecordingWriter::hasRoom(dir.toStdString(), 256 * 1024));
        QVERIFY(!RecordingWriter::hasRoom(dir.toStdString(), 1024 * 1024));
    }

    void joinedImagePdfAndTiffIntoAFullOrUnwritableFolder_data()
    {
        QTest::addColumn<bool>("full");
        QTest::newRow("full file system") << true;
        QTest::newRow("folder through a file") << false;
    }

    void joinedImagePdfAndTiffIntoAFullOrUnwritableFolder()
    {
        QFETCH(bool, full);
        ModalAnswerer answerer;
        const QStringList paths = pictures();
        const QString out = full ? fullFolder() : unwritableFolder();
        Cache::config->user_documentsLocation = out;
        GapMeter gaps;

        ImageMergingDialog merging;
        merging.setImage(paths);
        QSignalSpy merged(&merging, &ImageMergingDialog::saveImageMergingSignals);
        QList<qint64> held;
        held << heldFor([&] { merging.on_btnSave_clicked(); });
        QCOMPARE(merged.count(), 1);

        ImageSavePDFOrTiffDialog pages;
        QSignalSpy saved(&pages, &ImageSavePDFOrTiffDialog::saveImageMergingSignals);
        pages.setImage(paths);
        held << heldFor([&] { pages.on_btnSavePDF_clicked(); });
        pages.setImage(paths);
        held << heldFor([&] { pages.on_btnSaveTiff_clicked(); });
        QCOMPARE(saved.count(), 2);
        QTest::qWait(200);

        // Nothing whole was left behind, and the process goes on.
        for (const QList<QVariant> &call : saved + merged) {
            const QString file = call.at(0).value<QList<QString>>().value(0);
            QVERIFY(!file.isEmpty());
            const QFileInfo info(file);
            QVERIFY2(!info.exists() || info.size() < 4096 || !full,
                     qPrintable(QString("%1: %2 bytes").arg(file).arg(info.size())));
        }
        qInfo("joined image, PDF and TIFF held the window %lld, %lld, %lld ms; "
              "longest gap of a 10 ms timer: %lld ms",
              held[0], held[1], held[2], gaps.longest);
        for (qint64 ms : held)
            QVERIFY2(ms <= guiCallLimitMs, qPrintable(QString::number(ms)));
        QVERIFY2(gaps.longest <= timerGapLimitMs, qPrintable(QString::number(gaps.longest)));
    }
};

QTEST_MAIN(tst_FullDisk)
#include "tst_fulldisk.moc"
