// Recordings with sound, on the real path: the main window's record button,
// the virtual camera and a virtual microphone on a private sound server.
// The file is read back with libavformat.
#include "cache.h"
#include "camerainfo.h"
#include "levelmeter.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "settingdialog.h"
#include "soundsupport.h"
#include "startup.h"
#include "testsupport.h"
#include "ui_mainwindowqcamera.h"
#include "ui_settingdialog.h"
#include "windowsupport.h"

#include <QComboBox>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <opencv2/imgcodecs.hpp>

#include <algorithm>
#include <future>
#include <cmath>
#include <memory>

namespace {

constexpr int frameDeadline = 30000;
constexpr int cameraFps = 15;

QString listed(const std::vector<double> &values)
{
    QStringList parts;
    for (double v : values)
        parts << QString::number(v * 1000.0, 'f', 1);
    return parts.join(QStringLiteral(", ")) + QStringLiteral(" ms");
}

} // namespace

class tst_RecordingSound : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> documents;
    std::unique_ptr<VirtualMicrophone> mic; // one sound server for the whole run

    void attachCamera(bool flash)
    {
        clearVirtualCameraEnvironment();
        qputenv("VCAM_CAMERAS", "1");
        qputenv("VCAM_0_SIZES", "640x480");
        qputenv("VCAM_0_FPS", QByteArray::number(cameraFps));
        qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.5,0.5,0");
        if (flash)
            qputenv("VCAM_0_FLASH", "1000,200");
        *Cache::cameras = CameraInfo::discover();
    }

    // Records for the given time with the record button; answers the path.
    static QString record(MainWindowQCamera &w, int ms)
    {
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QTest::qWait(ms);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        return w.ui->video->m_cameraRecorderPath;
    }

private slots:
    void initTestCase()
    {
        mic.reset(new VirtualMicrophone);
        QVERIFY2(mic->isReady(), qPrintable(mic->error()));
        preferVideo4Linux2Capture();
        if (Cache::config->resolutions.isEmpty())
            appendOutputSizes(Cache::config->resolutions);
    }

    void init()
    {
        documents.reset(new QTemporaryDir);
        QVERIFY(documents->isValid());
        Cache::config->init();
        Cache::config->camera_index = 0;
        Cache::config->user_documentsLocation = documents->path();
        Cache::config->isSaveTiff = false;
    }

    void cleanupTestCase() { mic.reset(); }

    void cleanup()
    {
        Cache::config->init();
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    void dialogListsTheMicrophoneAndSavesTheChoice()
    {
        QVERIFY(mic->feed(VirtualMicrophone::Tone{}));
        SettingDialog dialog;
        dialog.init();
        auto *box = dialog.findChild<QComboBox *>("audioInputBox");
        auto *check = dialog.findChild<QCheckBox *>("checkBox_RecordAudio");
        QVERIFY(box && check);
        QCOMPARE(box->itemText(0), QString("系统默认"));
        const int index = box->findText(VirtualMicrophone::sourceName);
        QVERIFY2(index > 0, "the sound server's input is listed");
        box->setCurrentIndex(index);
        check->setChecked(true);
        QTest::mouseClick(dialog.findChild<QPushButton *>("saveSetting"), Qt::LeftButton);
        QCOMPARE(Cache::config->record_audio, true);
        QCOMPARE(Cache::config->audio_input, QString(VirtualMicrophone::sourceName));
        QSettings file(Cache::config->ini_path, QSettings::IniFormat);
        QCOMPARE(file.value("extra/audio_input").toString(),
                 QString(VirtualMicrophone::sourceName));
        QCOMPARE(file.value("extra/record_audio").toString(), QString("true"));

        dialog.init();
        QCOMPARE(box->currentText(), QString(VirtualMicrophone::sourceName));
    }

    void tenSecondRecordingHoldsPictureAndTone()
    {
        QVERIFY(mic->feed(VirtualMicrophone::Tone{ 1000.0, 0.5, 0.0, 0, 0 }));
        attachCamera(false);
        Cache::config->record_audio = true;
        Cache::config->audio_input = VirtualMicrophone::sourceName;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        auto *meter = w.findChild<LevelMeter *>("levelMeter");
        QVERIFY(meter);
        QVERIFY(meter->isHidden());
        // Just below the caption, which is centred on the preview.
        QCOMPARE(meter->parentWidget(), static_cast<QWidget *>(w.ui->lb_video_tip));

        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.ui->video->recordingHasSound());
        QVERIFY(!meter->isHidden());
        w.show();
        QTRY_VERIFY_WITH_TIMEOUT(meter->y() > w.ui->lb_video_tip->height() / 2, 5000);
        QVERIFY(meter->y() < w.ui->lb_video_tip->height() / 2 + 80);
        // A tone at half of full scale is -6 dB: most of the bar.
        QTRY_VERIFY_WITH_TIMEOUT(meter->shownPercent() >= 85, 5000);
        QTest::qWait(10000);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(meter->isHidden());
        QCOMPARE(answerer.boxes.size(), 0);

        const RecordedFile file = readRecording(w.ui->video->m_cameraRecorderPath);
        QVERIFY(file.ok);
        QCOMPARE(file.streams, 2);
        QCOMPARE(file.videoCodec, QString("mjpeg"));
        QCOMPARE(QSize(file.width, file.height), QSize(640, 480));
        QCOMPARE(file.timeBaseNum, 1);
        QCOMPARE(file.timeBaseDen, cameraFps);
        QCOMPARE(file.audioCodec, QString("pcm_s16le"));
        QCOMPARE(file.sampleRate, 48000);
        QCOMPARE(file.channels, 1);
        qInfo("video %.3f s, audio %.3f s, %zu pictures", file.videoSeconds(), file.audioSeconds(),
              file.frames.size());
        QVERIFY(file.videoSeconds() > 9.0 && file.videoSeconds() < 12.0);
        QVERIFY(std::abs(file.audioSeconds() - file.videoSeconds()) <= 0.1);
        // Nearly every camera frame is in the file: a matter of real-time
        // pace, which user-mode emulation cannot give.
        if (!underEmulation())
            QVERIFY(double(file.frames.size()) >= 0.8 * file.videoSeconds() * cameraFps);

        // The tone, measured between the first and the last second.
        const std::size_t from = 48000, to = file.samples.size() - 48000;
        const double rms = rmsOf(file.samples, from, to);
        const double hz = frequencyOf(file.samples, from, to, 48000);
        qInfo("tone %.1f Hz at rms %.0f", hz, rms);
        QVERIFY(std::abs(hz - 1000.0) < 5.0);
        const double expectedRms = 0.5 * 32767 / std::sqrt(2.0);
        QVERIFY(std::abs(rms - expectedRms) < 0.05 * expectedRms);
    }

    void quietRoomShowsLittleOnTheMeter()
    {
        QVERIFY(mic->feed(VirtualMicrophone::Tone{ 1000.0, 0.002, 0.0, 0, 0 }));
        attachCamera(false);
        Cache::config->record_audio = true;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        auto *meter = w.findChild<LevelMeter *>("levelMeter");
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.ui->video->recordingHasSound());
        QTRY_VERIFY_WITH_TIMEOUT(meter->shownPercent() > 0, 5000);
        QTest::qWait(500);
        // -54 dB: a sliver of the bar.
        QVERIFY2(meter->shownPercent() < 20, qPrintable(QString::number(meter->shownPercent())));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
    }

    // Flashes and beeps at the same instants of the system's clock; the
    // microphone's clock runs 1 % fast, which over a minute is what 0.1 %
    // gives over ten.
    void soundStaysInStepWithDriftingMicrophone()
    {
        SKIP_WITHOUT_REAL_TIME_PACE();
        QVERIFY(mic->feed(VirtualMicrophone::Tone{ 2000.0, 0.6, 0.01, 1000, 200 }));
        attachCamera(true);
        Cache::config->record_audio = true;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        const RecordedFile file = readRecording(record(w, 62000));
        QVERIFY(file.ok);
        QCOMPARE(file.streams, 2);
        const Onsets onsets = findOnsets(file);
        const std::vector<double> found = syncOffsets(onsets);
        qInfo("%zu flashes (%d more after a missing frame), %zu beeps; offsets %s",
              onsets.video.size(), onsets.uncertain, onsets.audio.size(),
              qPrintable(listed(found)));
        QVERIFY(onsets.video.size() >= 50);
        QVERIFY(std::abs(double(onsets.audio.size())
                         - double(onsets.video.size() + std::size_t(onsets.uncertain)))
                <= 2);
        QVERIFY(onsets.video.back() >= 60.0);
        const double period = 1.0 / cameraFps;
        for (std::size_t i = 0; i < found.size(); ++i) {
            if (i < 3 || i + 3 >= found.size())
                QVERIFY2(std::abs(found[i]) <= period,
                         qPrintable(QString("flash %1 at %2 s is %3 ms off")
                                            .arg(i)
                                            .arg(onsets.video[i])
                                            .arg(found[i] * 1000)));
        }
        QVERIFY(std::abs(file.audioSeconds() - file.videoSeconds()) <= 0.1);
    }

    void unpluggedMicrophoneLeavesSilenceInStep()
    {
        QVERIFY(mic->feed(VirtualMicrophone::Tone{ 1000.0, 0.5, 0.0, 0, 0 }));
        attachCamera(false);
        Cache::config->record_audio = true;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.ui->video->recordingHasSound());
        QTest::qWait(3000);

        // The window's event loop keeps turning while the sound goes away.
        qint64 longest = 0;
        QElapsedTimer beat;
        QTimer ticker;
        connect(&ticker, &QTimer::timeout, [&] { longest = std::max(longest, beat.restart()); });
        beat.start();
        ticker.start(10);
        // Unplugged from another thread: the window's thread only waits
        // for events meanwhile.
        auto unplugged = std::async(std::launch::async, [this] { return mic->unplug(); });
        QTest::qWait(4000);
        QVERIFY(unplugged.get());
        ticker.stop();
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        qInfo("longest pause of the window while unplugging: %lld ms", longest);
        QVERIFY(longest <= 100);
        QCOMPARE(answerer.boxes.size(), 0);

        const RecordedFile file = readRecording(w.ui->video->m_cameraRecorderPath);
        QVERIFY(file.ok);
        QCOMPARE(file.streams, 2);
        qInfo("video %.3f s, audio %.3f s", file.videoSeconds(), file.audioSeconds());
        QVERIFY(file.videoSeconds() > 6.0);
        QVERIFY(std::abs(file.audioSeconds() - file.videoSeconds()) <= 0.1);
        // The tone before, silence for the rest.
        QVERIFY(rmsOf(file.samples, 48000, 2 * 48000) > 10000);
        const std::size_t end = file.samples.size();
        QCOMPARE(rmsOf(file.samples, end - 2 * 48000, end), 0.0);
        QVERIFY(mic->plugIn());
    }

    // Without the option, the file is today's: one MJPG stream at a nominal
    // ten frames a second, and no meter.
    void optionOffRecordsTodaysFile()
    {
        QVERIFY(mic->feed(VirtualMicrophone::Tone{}));
        attachCamera(false);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        auto *meter = w.findChild<LevelMeter *>("levelMeter");
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(!w.ui->video->recordingHasSound());
        QVERIFY(meter->isHidden());
        QTest::qWait(2000);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QCOMPARE(answerer.boxes.size(), 0);
        const QString difference =
                differsFromSilentRecording(w.ui->video->m_cameraRecorderPath, documents->path());
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
        const RecordedFile file = readRecording(w.ui->video->m_cameraRecorderPath);
        QCOMPARE(structureOf(file),
                 QString("streams 1; video mjpeg 640x480, time base 1/10, 10 fps; "
                         "audio none 0 Hz 0 ch"));
    }
};

QTEST_MAIN(tst_RecordingSound)
#include "tst_recordingsound.moc"
