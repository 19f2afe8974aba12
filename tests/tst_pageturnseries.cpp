// The page-turn series in the main window: the series button's texts,
// caption and guards in that mode (the timed series unchanged in the other),
// the photos it asks for, and the Space and F5 keys.
#include "cache.h"
#include "camerainfo.h"
#include "imagemergingdialog.h"
#include "imagesavepdfortiffdialog.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "settingdialog.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"
#include "ui_mainwindowqcamera.h"
#include "windowsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

constexpr int frameDeadline = 30000;
constexpr int fileDeadline = 20000;
const char *const loadingTip = "视频加载中，请稍候......";

} // namespace

class tst_PageTurnSeries : public QObject, private CameraFolders
{
    Q_OBJECT

    // One small, fast camera showing the default sheet.
    void attachCamera()
    {
        qputenv("VCAM_CAMERAS", "1");
        qputenv("VCAM_0_SIZES", "640x480");
        *Cache::cameras = CameraInfo::discover();
    }

    static ImageProcessing *engine(MainWindowQCamera &w) { return w.ui->video->m_imageProcessing; }

private slots:
    void initTestCase() { prepareWindowTests(); }

    void init()
    {
        QVERIFY(makeFresh());
        resetWindowSettings(m_documents->path());
        Cache::config->shooting_mode = ShootingModePageTurn;
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // ---- the series button in page-turn mode ---------------------------

    void seriesButtonStartsAndStopsThePageTurnSeries()
    {
        attachCamera();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        QVERIFY(!engine(w)->pageTurnSeries);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(w.isTimeShooting);
        QVERIFY(engine(w)->pageTurnSeries);
        QVERIFY2(!w.timerShooting->isActive(), "no timer in page-turn mode");
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n拍照中"));
        QCOMPARE(w.ui->lb_video_tip->text(), QString("自动拍摄中......"));
        QVERIFY(w.ui->lb_video_tip->isVisible());

        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!w.isTimeShooting);
        QVERIFY(!engine(w)->pageTurnSeries);
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n定时"));
        QCOMPARE(w.ui->lb_video_tip->text(), QString(loadingTip));
        QVERIFY(!w.ui->lb_video_tip->isVisible());
    }

    void intervalModeStillRunsTheTimer()
    {
        Cache::config->shooting_mode = ShootingModeInterval;
        Cache::config->image_shooting_time = 3;
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(w.isTimeShooting);
        QVERIFY(w.timerShooting->isActive());
        QCOMPARE(w.timerShooting->interval(), 3000);
        QVERIFY(!engine(w)->pageTurnSeries);
        QCOMPARE(w.ui->lb_video_tip->text(), QString("定时拍照中......"));
        // A page-turn request (none comes in this mode) takes no photo.
        emit w.ui->video->pageTurnSettled();
        QTest::qWait(100);
        QVERIFY(!engine(w)->isTakePhoto);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!w.timerShooting->isActive());
    }

    void theModeIsTakenWhenTheSeriesStarts()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(engine(w)->pageTurnSeries);
        // Changed while it runs: the running series is still stopped whole.
        Cache::config->shooting_mode = ShootingModeInterval;
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!engine(w)->pageTurnSeries);
        QVERIFY(!w.timerShooting->isActive());
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!engine(w)->pageTurnSeries);
        QVERIFY(w.timerShooting->isActive());
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
    }

    void guardsOfTheTimedSeriesRefuseDuringThePageTurnSeries()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        ModalAnswerer answerer;
        RefusedClick refused(answerer, "定时拍摄中......", "警告");
        const int before = documents().size();
        QVERIFY(refused(w.ui->btnShooting));
        QVERIFY(refused(w.ui->btnShootingVideo));
        QVERIFY(!w.isVideoShooting);
        QVERIFY(refused(w.ui->btnToggleDevice_2));
        QCOMPARE(Cache::config->camera_index, 0);
        QVERIFY(refused(w.ui->pushButton));
        QVERIFY(!w.imageMerging->isVisible());
        QVERIFY(refused(w.ui->btnSavePdfTiff));
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
        QTest::qWait(200);
        QCOMPARE(answerer.boxes.size(), refused.expected);
        QVERIFY(w.isTimeShooting);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        // Only the series' own photo of the sheet, never one of the clicks.
        QVERIFY(documents().size() - before <= 1);
    }

    void seriesIsRefusedWhileRecording()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.isVideoShooting);
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].text, QString("录像中......"));
        QVERIFY(!w.isTimeShooting);
        QVERIFY(!engine(w)->pageTurnSeries);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
    }

    void startingTheSeriesClosesTheCompositionDialogs()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QVERIFY(w.imageMerging->isVisible());
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!w.imageMerging->isVisible());
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
    }

    // ---- photos -----------------------------------------------------------

    void theSheetUnderTheCameraIsPhotographedOnceIntoTheStrip()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.file_paths.value(0), document("IMG_1.jpg"), fileDeadline);
        QCOMPARE(QImage(document("IMG_1.jpg")).size(), QSize(640, 480));
        QCOMPARE(w.currentPicIndex, 2);
        // Nothing changes under the camera: no second photo.
        QTest::qWait(2500);
        QCOMPARE(documents(), QStringList{ "IMG_1.jpg" });
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        // Started again, the same sheet is photographed again.
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(documents().size(), 2, fileDeadline);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
    }

    void requestsAfterTheSeriesStoppedAreDropped()
    {
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        // A request the capture thread sent just before the stop.
        emit w.ui->video->pageTurnSettled();
        QTest::qWait(1500);
        QVERIFY(!engine(w)->isTakePhoto);
        QVERIFY(documents().isEmpty());
    }

    // ---- keys ---------------------------------------------------------------

    void tooltipsNameTheKeys()
    {
        attachCamera();
        MainWindowQCamera w;
        QCOMPARE(w.ui->btnShooting->toolTip(), QString("拍照（空格键）"));
        QCOMPARE(w.ui->btnShootingTime->toolTip(), QString("定时拍摄（F5）"));
    }

    void spaceTakesAPhotoWhateverControlHasFocus()
    {
        Cache::config->shooting_mode = ShootingModeInterval;
        attachCamera();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        // A focused push button does not click itself: the settings stay shut.
        w.ui->btnSetting_2->setFocus();
        QTest::keyClick(w.ui->btnSetting_2, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(w.file_paths.value(0), document("IMG_1.jpg"), fileDeadline);
        QVERIFY(!w.settingsDialog->isVisible());
        // Nor does a radio button change the mode.
        QTest::keyClick(w.ui->rb_Shooting_12, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(documents().size(), 2, fileDeadline);
        QVERIFY(!w.ui->rb_Shooting_12->isChecked());
        QCOMPARE(int(engine(w)->shooting_type), 0);
        // The window itself.
        QTest::keyClick(&w, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(documents().size(), 3, fileDeadline);
        QCOMPARE(answerer.boxes.size(), 0);
    }

    void spaceKeepsTheShootButtonsGuards()
    {
        Cache::config->shooting_mode = ShootingModeInterval;
        Cache::config->image_shooting_time = 30;
        attachCamera();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        ModalAnswerer answerer;
        QTest::keyClick(w.ui->btnShooting, Qt::Key_Space);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("定时拍摄中......"));
        QVERIFY(!engine(w)->isTakePhoto);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
    }

    void f5StartsAndStopsTheSeries()
    {
        attachCamera();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        QTest::keyClick(w.ui->btnleft_2, Qt::Key_F5);
        QVERIFY(w.isTimeShooting);
        QVERIFY(engine(w)->pageTurnSeries);
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n拍照中"));
        QTest::keyClick(&w, Qt::Key_F5);
        QVERIFY(!w.isTimeShooting);
        QVERIFY(!engine(w)->pageTurnSeries);
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n定时"));
        QCOMPARE(int(engine(w)->angle), 0); // the focused button did nothing
    }

    void keysDoNothingWhileADialogIsOpen()
    {
        Cache::config->shooting_mode = ShootingModeInterval;
        attachCamera();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnSetting_2, Qt::LeftButton);
        QVERIFY(w.settingsDialog->isVisible());
        QTest::keyClick(w.ui->btnShooting, Qt::Key_Space);
        QTest::keyClick(w.ui->btnShooting, Qt::Key_F5);
        QTest::qWait(1500);
        QVERIFY(documents().isEmpty());
        QVERIFY(!w.isTimeShooting);
        w.settingsDialog->close();

        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(w.imageSavePDFOrTiff->isVisible());
        QTest::keyClick(w.ui->btnShooting, Qt::Key_F5);
        QVERIFY(!w.isTimeShooting);
        w.imageSavePDFOrTiff->close();

        // Keys typed into a dialog are the dialog's.
        QTest::mouseClick(w.ui->btnSetting_2, Qt::LeftButton);
        QTest::keyClick(w.settingsDialog, Qt::Key_F5);
        QVERIFY(!w.isTimeShooting);
        w.settingsDialog->close();

        // All closed: the keys work again.
        QTest::keyClick(w.ui->btnShooting, Qt::Key_F5);
        QVERIFY(w.isTimeShooting);
        QTest::keyClick(w.ui->btnShooting, Qt::Key_F5);
        QVERIFY(!w.isTimeShooting);
    }

    void heldKeysAndModifiedKeysDoNothing()
    {
        Cache::config->shooting_mode = ShootingModeInterval;
        attachCamera();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        QKeyEvent repeat(QEvent::KeyPress, Qt::Key_F5, Qt::NoModifier, QString(), true);
        QApplication::sendEvent(w.ui->btnShooting, &repeat);
        QVERIFY(!w.isTimeShooting);
        QTest::keyClick(w.ui->btnShooting, Qt::Key_F5, Qt::ControlModifier);
        QVERIFY(!w.isTimeShooting);
        QTest::keyClick(&w, Qt::Key_Space, Qt::ShiftModifier);
        QTest::qWait(1500);
        QVERIFY(!engine(w)->isTakePhoto);
        QVERIFY(documents().isEmpty());
    }
};

QTEST_MAIN(tst_PageTurnSeries)
#include "tst_pageturnseries.moc"
