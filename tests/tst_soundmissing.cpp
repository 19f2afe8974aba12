// A recording with sound asked for when there is no sound server: one
// warning, and the picture recorded exactly as without the option.
#include "cache.h"
#include "camerainfo.h"
#include "levelmeter.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "soundsupport.h"
#include "startup.h"
#include "testsupport.h"
#include "ui_mainwindowqcamera.h"

#include <QPushButton>
#include <QTemporaryDir>
#include <QtTest>

class tst_SoundMissing : public QObject
{
    Q_OBJECT

private slots:
    void noMicrophoneWarnsOnceAndRecordsThePicture()
    {
        VirtualMicrophone::pointAtNoServer();
        preferVideo4Linux2Capture();
        if (Cache::config->resolutions.isEmpty())
            appendOutputSizes(Cache::config->resolutions);
        QTemporaryDir documents;
        Cache::config->init();
        Cache::config->camera_index = 0;
        Cache::config->user_documentsLocation = documents.path();
        Cache::config->record_audio = true;
        qputenv("VCAM_CAMERAS", "1");
        qputenv("VCAM_0_SIZES", "640x480");
        *Cache::cameras = CameraInfo::discover();

        MainWindowQCamera w;
        QVERIFY(QTest::qWaitFor(
                [&] { return !w.ui->video->isOpenTip && !w.ui->video->m_Image.isNull(); }, 30000));
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 10000);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("未找到麦克风，本次录像不含声音"));
        QVERIFY(w.isVideoShooting);
        QVERIFY(!w.ui->video->recordingHasSound());
        QVERIFY(w.findChild<LevelMeter *>("levelMeter")->isHidden());
        QTest::qWait(2000);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QCOMPARE(answerer.boxes.size(), 1);

        const QString difference =
                differsFromSilentRecording(w.ui->video->m_cameraRecorderPath, documents.path());
        QVERIFY2(difference.isEmpty(), qPrintable(difference));
        QVERIFY(readRecording(w.ui->video->m_cameraRecorderPath).frames.size() >= 5);
    }
};

QTEST_MAIN(tst_SoundMissing)
#include "tst_soundmissing.moc"
