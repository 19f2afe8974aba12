// The main window built in this process against virtual cameras: its form,
// what its constructor sets up, the shooting controls with their guards, the
// camera and option controls, the strip of results, and whole operator
// stories from a click to the file on disk.
#include "cache.h"
#include "camerainfo.h"
#include "cameraviewdialog.h"
#include "imagemergingdialog.h"
#include "imagesavepdfortiffdialog.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "settingdialog.h"
#include "startup.h"
#include "testsupport.h"
#include "threads/imageprocessing.h"
#include "ui_imagemergingdialog.h"
#include "ui_imagesavepdfortiffdialog.h"
#include "ui_mainwindowqcamera.h"
#include "windowsupport.h"

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QDesktopServices>
#include <QDir>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QGroupBox>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QSignalSpy>
#include <QSlider>
#include <QTemporaryDir>
#include <QTimer>
#include <QUrl>
#include <QtTest>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/videoio.hpp>

#include <memory>

namespace {

// Generous deadlines: the tests also run under AddressSanitizer.
constexpr int frameDeadline = 30000;
constexpr int fileDeadline = 20000;

const char *const loadingTip = "视频加载中，请稍候......";
const char *const normalSlotStyle =
        "border-radius:3px;border:1px groove gray;padding:2px 4px;background-color:transparent";
const char *const newestSlotStyle =
        "border-radius:3px;border:1px groove gray;padding:2px 4px;background-color:red;";

// Makes the window's event filter callable, to see what it answers.
class OpenWindow : public MainWindowQCamera
{
public:
    using MainWindowQCamera::eventFilter;
};

// Records the files the window asks the desktop to open.
class UrlRecorder : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> urls;
public slots:
    void open(const QUrl &url) { urls.append(url); }
};

QPixmap slotPixmap(MainWindowQCamera &w, int n)
{
    auto *label = w.findChild<QLabel *>(QString("pic2%1").arg(n));
    return label ? label->pixmap(Qt::ReturnByValue) : QPixmap();
}

QString slotStyle(MainWindowQCamera &w, int n)
{
    auto *label = w.findChild<QLabel *>(QString("pic2%1").arg(n));
    return label ? label->styleSheet() : QString("(no slot)");
}

QString resource(const QString &relative)
{
    return Cache::config->exe_path + relative;
}

QImage scaledIcon(const QString &relative)
{
    return QPixmap(resource(relative))
            .scaled(200, 200, Qt::IgnoreAspectRatio, Qt::FastTransformation)
            .toImage();
}

// Writes a plain photo of the given size and colour; returns its path.
QString writePhoto(const QString &dir, const QString &name, int w, int h, QColor colour)
{
    QImage image(w, h, QImage::Format_RGB32);
    image.fill(colour);
    const QString path = QDir(dir).filePath(name);
    image.save(path);
    return path;
}

int frameCount(const QString &path)
{
    cv::VideoCapture cap(path.toStdString(), cv::CAP_ANY);
    if (!cap.isOpened())
        cap.open(path.toStdString(), cv::CAP_OPENCV_MJPEG);
    int n = 0;
    cv::Mat frame;
    while (cap.read(frame) && !frame.empty())
        ++n;
    return n;
}

bool isBright(const QColor &c)
{
    return c.red() > 180 && c.green() > 180 && c.blue() > 180;
}

bool isDark(const QColor &c)
{
    return c.red() < 90 && c.green() < 90 && c.blue() < 90;
}

} // namespace

class tst_MainWindow : public QObject, private CameraFolders
{
    Q_OBJECT

private:
    // count small, fast virtual cameras (nodes 0, 2, 4, … with their
    // metadata nodes between), each showing scene.
    void attachCameras(int count, const char *scene = "sheets:0.5,0.5,0.5,0.5,0")
    {
        qputenv("VCAM_CAMERAS", QByteArray::number(count));
        for (int k = 0; k < count; ++k) {
            qputenv(QString("VCAM_%1_SIZES").arg(2 * k).toLatin1(), "640x480");
            qputenv(QString("VCAM_%1_SCENE").arg(2 * k).toLatin1(), scene);
        }
        *Cache::cameras = CameraInfo::discover();
    }

    // Capture nodes only, so that the camera list holds exactly count
    // entries, all of them openable.
    void attachCaptureNodes(int count)
    {
        QStringList nodes;
        for (int n = 0; n < count; ++n) {
            nodes << QString("%1:camera").arg(n);
            qputenv(QString("VCAM_%1_SIZES").arg(n).toLatin1(), "640x480");
        }
        qputenv("VCAM_NODES", nodes.join(',').toLatin1());
        *Cache::cameras = CameraInfo::discover();
    }

private slots:
    void initTestCase()
    {
        prepareWindowTests();
        Cache::config->exe_path = QStringLiteral(BUILD_DIR);
        QVERIFY2(QFile::exists(resource("/Resources/back/Picture_90.png")),
                 "the build renders the pictures beside the program");
    }

    void init()
    {
        QVERIFY(makeFresh());
        resetWindowSettings(m_documents->path()); // 640x480: small, quick photos
    }

    void cleanup()
    {
        clearVirtualCameraEnvironment();
        Cache::cameras->clear();
    }

    // ---- construction and form ---------------------------------------

    void formHasEveryWidgetInOrder()
    {
        attachCameras(1);
        MainWindowQCamera w;
        const QStringList expected = { "centralwidget",
                                       "verticalLayout",
                                       "widget",
                                       "horizontalLayout_7",
                                       "video",
                                       "horizontalLayout_8",
                                       "lb_video_tip",
                                       "frame_11",
                                       "picLogo_2",
                                       "lbRotate_2",
                                       "btnleft_2",
                                       "btnupdown_2",
                                       "btnright_2",
                                       "btnToggleDevice_2",
                                       "lbSecCon_2",
                                       "btnSecCamCon_2",
                                       "btnSecCam1Con_2",
                                       "chMergeImage_2",
                                       "gpimagepath_2",
                                       "btnOpenUserWorkDir_2",
                                       "btnSelectWorkDir_2",
                                       "lbUserWorkDir_2",
                                       "groupCorrection_2",
                                       "rb_correction_10",
                                       "rb_correction_11",
                                       "rb_correction_12",
                                       "rb_correction_13",
                                       "groupShootingSetting_2",
                                       "rb_Shooting_10",
                                       "rb_Shooting_11",
                                       "rb_Shooting_12",
                                       "rb_Shooting_13",
                                       "groupBox_4",
                                       "check_image_merging_2",
                                       "cbSaveTiffImage_2",
                                       "pushButton",
                                       "btnSavePdfTiff",
                                       "lb_exposure_header_2",
                                       "tbExposure_2",
                                       "cbAutoExp_2",
                                       "lb_exposure_2",
                                       "frame_2",
                                       "verticalLayout_3",
                                       "frame_7",
                                       "horizontalLayout_5",
                                       "frame_8",
                                       "pic22",
                                       "pic24",
                                       "pic23",
                                       "pic25",
                                       "pic21",
                                       "pic26",
                                       "pic27",
                                       "pic28",
                                       "pic29",
                                       "pic210",
                                       "frame_9",
                                       "btnShooting",
                                       "btnSetting_2",
                                       "btnShootingTime",
                                       "btnShootingVideo",
                                       "frame_10",
                                       "horizontalLayout_6",
                                       "lbcompany_2",
                                       "lbcopyText_2" };
        // Children are kept in creation order, so a walk of the tree in that
        // order gives the order in which the form made them.
        QStringList found;
        const QSet<QString> wanted(expected.begin(), expected.end());
        for (QObject *o : w.findChildren<QObject *>()) {
            if (wanted.contains(o->objectName()) && !found.contains(o->objectName()))
                found << o->objectName();
        }
        QCOMPARE(found, expected);

        QCOMPARE(w.minimumSize(), QSize(1026, 690));
        QCOMPARE(w.size(), QSize(1026, 690));
        QVERIFY(qobject_cast<QCameraView *>(w.findChild<QWidget *>("video")));
        QVERIFY(qobject_cast<QLineEdit *>(w.findChild<QWidget *>("lbUserWorkDir_2")));
        QVERIFY(qobject_cast<QSlider *>(w.findChild<QWidget *>("tbExposure_2")));
        QVERIFY(w.windowTitle().contains("Veltaro"));
        QVERIFY(w.ui->lbcompany_2->text().contains("Veltaro"));
        QVERIFY(w.ui->lbcompany_2->text().contains("保留所有权利"));
        QCOMPARE(w.ui->lbcopyText_2->text(), QString());
    }

    void formTextsAndProperties()
    {
        attachCameras(1);
        MainWindowQCamera w;
        auto text = [&](const char *name) {
            QWidget *widget = w.findChild<QWidget *>(name);
            if (auto *b = qobject_cast<QAbstractButton *>(widget))
                return b->text();
            if (auto *l = qobject_cast<QLabel *>(widget))
                return l->text();
            if (auto *g = qobject_cast<QGroupBox *>(widget))
                return g->title();
            return QString("(none)");
        };
        const QList<QPair<const char *, QString>> texts = {
            { "lbRotate_2", "视频旋转：" },
            { "lbSecCon_2", "画 中 画：" },
            { "chMergeImage_2", "合并拍照" },
            { "gpimagepath_2", "存储路径" },
            { "btnOpenUserWorkDir_2", "浏览图像" },
            { "btnSelectWorkDir_2", "存储位置" },
            { "groupCorrection_2", "矫正方式" },
            { "rb_correction_10", "不矫正" },
            { "rb_correction_11", "单个矫正" },
            { "rb_correction_12", "多个矫正" },
            { "rb_correction_13", "自定义矫正" },
            { "groupShootingSetting_2", "拍摄类型" },
            { "rb_Shooting_10", "彩色" },
            { "rb_Shooting_11", "灰度" },
            { "rb_Shooting_12", "黑白" },
            { "rb_Shooting_13", "彩色去底" },
            { "groupBox_4", "图像处理" },
            { "check_image_merging_2", "合拼图像" },
            { "cbSaveTiffImage_2", "存储PDF/TIFF" },
            { "pushButton", "合并图像" },
            { "btnSavePdfTiff", "存储PDF/TIFF" },
            { "lb_exposure_header_2", "曝 光 度：" },
            { "cbAutoExp_2", "自动" },
            { "lb_exposure_2", "-3" },
            { "btnShooting", "\n\n拍摄" },
            { "btnSetting_2", "\n\n设置" },
            { "btnShootingTime", "\n\n定时" },
            { "btnShootingVideo", "\n\n录像" },
            { "lb_video_tip", loadingTip },
            { "btnleft_2", "" },
            { "picLogo_2", "" }
        };
        for (const auto &t : texts)
            QCOMPARE(text(t.first), t.second);

        QVERIFY(w.ui->rb_correction_10->isChecked());
        QVERIFY(w.ui->rb_Shooting_10->isChecked());
        QVERIFY(w.ui->cbAutoExp_2->isChecked());
        QVERIFY(!w.ui->chMergeImage_2->isChecked());
        QVERIFY(w.ui->lbUserWorkDir_2->isReadOnly());
        QCOMPARE(w.ui->tbExposure_2->minimum(), -13);
        QCOMPARE(w.ui->tbExposure_2->maximum(), -1);
        QCOMPARE(w.ui->tbExposure_2->value(), -3);
        QCOMPARE(w.ui->tbExposure_2->singleStep(), 1);
        QCOMPARE(w.ui->tbExposure_2->pageStep(), 1);
        QCOMPARE(w.ui->tbExposure_2->orientation(), Qt::Horizontal);
        QCOMPARE(w.ui->tbExposure_2->tickPosition(), QSlider::TicksAbove);
        QCOMPARE(w.ui->lb_video_tip->font().pointSize(), 20);
        QVERIFY(w.ui->lb_video_tip->font().bold());
        QCOMPARE(w.ui->lb_video_tip->alignment(), Qt::AlignCenter);
        QCOMPARE(w.ui->btnShooting->font().family(), QString("Microsoft YaHei"));
        QCOMPARE(w.ui->btnleft_2->iconSize(), QSize(32, 32));
        QCOMPARE(w.ui->btnShooting->iconSize(), QSize(32, 32));
        for (int n = 1; n <= 10; ++n) {
            auto *slot = w.findChild<QLabel *>(QString("pic2%1").arg(n));
            QVERIFY(slot->hasScaledContents());
            QCOMPARE(slot->styleSheet(),
                     QString("border-radius:3px;\n\tborder:1px groove gray;\n\tpadding:2px 4px;"));
        }

        const QString frameStyle =
                "QFrame {\n\tborder:0px solid rgb(190, 190, "
                "190);\n}\nQPushButton:hover{\n\tbackground-color: rgb(197, 197, "
                "197);\n}\nQPushButton:pressed{\n\tbackground-color: rgb(170, 170, 255);\n}\n";
        QCOMPARE(w.ui->frame_11->styleSheet(), frameStyle);
        QCOMPARE(w.ui->frame_2->styleSheet(), frameStyle.left(frameStyle.size() - 1));
        QCOMPARE(w.ui->video->styleSheet(), QString("border:0.5px solid gray;"));
        QCOMPARE(w.ui->btnleft_2->styleSheet(),
                 QString("border:1px groove gray;border-radius:16px;padding:2px 4px;\n"));
        QCOMPARE(w.ui->btnSecCam1Con_2->styleSheet(), w.ui->btnleft_2->styleSheet());
        QCOMPARE(w.ui->btnSelectWorkDir_2->styleSheet(),
                 QString("border:1px groove gray;border-radius:3px;padding:2px 4px;\n"));
        QCOMPARE(w.ui->lbUserWorkDir_2->styleSheet(),
                 QString("background-color: rgb(255, 255, 255);"));
        for (QFrame *f : { w.ui->frame_7, w.ui->frame_8, w.ui->frame_9, w.ui->frame_10 })
            QCOMPARE(f->frameShape(), QFrame::StyledPanel);
    }

    void layoutPlacesPreviewColumnStripAndFooter()
    {
        attachCameras(1);
        MainWindowQCamera w;
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        auto *ui = w.ui;
        QCOMPARE(ui->frame_11->width(), 235);
        QCOMPARE(ui->frame_2->height(), 93);
        QCOMPARE(ui->frame_10->height(), 18);
        QCOMPARE(ui->frame_9->width(), 400);
        const QRect video = ui->video->geometry();
        const QRect column = ui->frame_11->geometry();
        QVERIFY(video.right() < column.left());
        QVERIFY(video.width() > 600);
        const QRect strip(ui->frame_2->mapTo(&w, QPoint()), ui->frame_2->size());
        const QRect footer(ui->frame_10->mapTo(&w, QPoint()), ui->frame_10->size());
        QVERIFY(ui->video->mapTo(&w, QPoint(0, ui->video->height())).y() <= strip.top());
        QVERIFY(strip.bottom() < footer.top());
        QCOMPARE(ui->lb_video_tip->parentWidget(), static_cast<QWidget *>(ui->video));
        // Every control of the column lies inside it.
        for (QWidget *child : ui->frame_11->findChildren<QWidget *>()) {
            if (child->isHidden() || child->parentWidget() != ui->frame_11)
                continue;
            QVERIFY2(ui->frame_11->rect().contains(child->geometry()),
                     qPrintable(child->objectName()));
        }
        for (int n = 1; n <= 10; ++n) {
            auto *slot = w.findChild<QLabel *>(QString("pic2%1").arg(n));
            QVERIFY(ui->frame_8->rect().contains(slot->geometry()));
        }
    }

    void constructorSetsUpPicturesStylesAndGroups()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QCOMPARE(w.ui->lbUserWorkDir_2->text(), m_documents->path());
        QVERIFY(!w.ui->picLogo_2->pixmap(Qt::ReturnByValue).isNull());
        const QPixmap logo = QPixmap(resource("/Resources/brivora.png"))
                                     .scaled(w.ui->picLogo_2->size(), Qt::KeepAspectRatio,
                                             Qt::SmoothTransformation);
        QCOMPARE(w.ui->picLogo_2->pixmap(Qt::ReturnByValue).toImage(), logo.toImage());
        QVERIFY(w.ui->picLogo_2->rect().contains(QRect(QPoint(), logo.size())));
        for (QPushButton *b :
             { w.ui->btnleft_2, w.ui->btnupdown_2, w.ui->btnright_2, w.ui->btnToggleDevice_2,
               w.ui->btnSecCam1Con_2, w.ui->btnSecCamCon_2 })
            QVERIFY2(!b->icon().isNull() && !b->icon().availableSizes().isEmpty(),
                     qPrintable(b->objectName()));
        QCOMPARE(w.ui->btnleft_2->icon().pixmap(32).toImage(),
                 QIcon(resource("/Resources/icon/icon_oleft.png")).pixmap(32).toImage());
        QCOMPARE(w.ui->btnSecCamCon_2->icon().pixmap(32).toImage(),
                 QIcon(resource("/Resources/icon/icon_webcam.png")).pixmap(32).toImage());

        const QString tpl =
                "border:1px groove gray;border-radius:3px;padding:2px 4px;background-image: "
                "url(%1/%2);background-repeat: no-repeat;background-position: top ;";
        const QString folder = Cache::config->exe_path + "/Resources/icon/";
        QCOMPARE(w.ui->btnShooting->styleSheet(), tpl.arg(folder, "icon_snap_32.png"));
        QCOMPARE(w.ui->btnSetting_2->styleSheet(), tpl.arg(folder, "icon_setting_32.png"));
        QCOMPARE(w.ui->btnShootingTime->styleSheet(), tpl.arg(folder, "icon_snap_clock.png"));
        QCOMPARE(w.ui->btnShootingVideo->styleSheet(), tpl.arg(folder, "icon_video_32_line.png"));
        QVERIFY(w.ui->btnShooting->styleSheet().contains("/Resources/icon//icon_snap_32.png"));
        // The doubled slash still names the picture.
        QVERIFY(QFile::exists(folder + "/icon_snap_32.png"));

        QCOMPARE(w.buttonGroupCorrection->id(w.ui->rb_correction_10), 0);
        QCOMPARE(w.buttonGroupCorrection->id(w.ui->rb_correction_13), 3);
        QCOMPARE(w.buttonGroupShooting->id(w.ui->rb_Shooting_11), 1);
        QCOMPARE(w.buttonGroupShooting->id(w.ui->rb_Shooting_13), 3);
        QCOMPARE(w.buttonGroupCorrection->buttons().size(), 4);
        QCOMPARE(w.buttonGroupShooting->buttons().size(), 4);
        QVERIFY(w.isReady);
        QVERIFY(!w.isTimeShooting && !w.isVideoShooting);
        QCOMPARE(w.currentPicIndex, 1);
        QCOMPARE(w.picCount, 10);
        QVERIFY(!w.timerShooting->isActive());
        for (QObject *child :
             { static_cast<QObject *>(w.settingsDialog), static_cast<QObject *>(w.cameraView1),
               static_cast<QObject *>(w.cameraView2), static_cast<QObject *>(w.imageMerging),
               static_cast<QObject *>(w.imageSavePDFOrTiff) })
            QCOMPARE(child->parent(), static_cast<QObject *>(&w));
    }

    void storedCameraBeyondTheListStartsCameraZeroAndSavesIt()
    {
        // The real program, started with a file that names camera 3 while
        // only camera 0 and its metadata node are attached.
        const QString work = m_scratch->path() + "/work";
        const QString home = m_scratch->path() + "/home";
        QVERIFY(QDir().mkpath(work) && QDir().mkpath(home));
        const QString ini = work + "/system.ini";
        {
            QSettings settings(ini, QSettings::IniFormat);
            for (const auto &[key, value] : factorySettings(m_documents->path()))
                settings.setValue(key, value);
            settings.setValue("camera/index", 3);
        }
        QCOMPARE(QSettings(ini, QSettings::IniFormat).value("camera/index").toInt(), 3);

        const ProgramRun run = runProgram(work, home,
                                          { { "VCAM_CAMERAS", "1" },
                                            { "VCAM_0_SIZES", "640x480" },
                                            { "VCAM_STATE_DIR", m_state->path() } },
                                          2500);
        QVERIFY2(run.finished && !run.crashed && run.exitCode == 0,
                 qPrintable(run.output.right(2000)));
        QVERIFY(run.boxes.isEmpty());
        // Camera 0 streamed, and the file holds 0 once the window is gone.
        QVERIFY2(stateValue(0, "frames").toInt() > 0, qPrintable(run.output.right(2000)));
        QCOMPARE(QSettings(ini, QSettings::IniFormat).value("camera/index").toInt(), 0);
    }

    void negativeStoredCameraStartsCameraZero()
    {
        attachCameras(1);
        Cache::config->camera_index = -1;
        MainWindowQCamera w;
        QCOMPARE(Cache::config->camera_index, 0);
        QCOMPARE(w.ui->video->id, 0);
        QVERIFY(waitOpen(w));
    }

    void freshStartShowsPlaceholdersInEverySlot()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QCOMPARE(w.file_paths,
                 QList<QString>() << ""
                                  << ""
                                  << ""
                                  << ""
                                  << ""
                                  << ""
                                  << ""
                                  << ""
                                  << ""
                                  << "");
        const QImage placeholder = QPixmap(resource("/Resources/back/Picture_90.png")).toImage();
        QVERIFY(!placeholder.isNull());
        for (int n = 1; n <= 10; ++n)
            QCOMPARE(slotPixmap(w, n).toImage(), placeholder);
    }

    void hiddenControlsAreInvisibleAfterConstruction()
    {
        attachCameras(1);
        MainWindowQCamera w;
        w.show();
        QVERIFY(QTest::qWaitForWindowExposed(&w));
        for (QWidget *hidden : { static_cast<QWidget *>(w.ui->rb_correction_13),
                                 static_cast<QWidget *>(w.ui->btnSecCamCon_2),
                                 static_cast<QWidget *>(w.ui->check_image_merging_2),
                                 static_cast<QWidget *>(w.ui->cbSaveTiffImage_2),
                                 static_cast<QWidget *>(w.ui->lb_exposure_2),
                                 static_cast<QWidget *>(w.ui->lb_exposure_header_2),
                                 static_cast<QWidget *>(w.ui->cbAutoExp_2),
                                 static_cast<QWidget *>(w.ui->tbExposure_2) })
            QVERIFY2(!hidden->isVisible(), qPrintable(hidden->objectName()));
        for (QWidget *shown : { static_cast<QWidget *>(w.ui->rb_correction_12),
                                static_cast<QWidget *>(w.ui->btnSecCam1Con_2),
                                static_cast<QWidget *>(w.ui->pushButton),
                                static_cast<QWidget *>(w.ui->btnShootingVideo) })
            QVERIFY2(shown->isVisible(), qPrintable(shown->objectName()));
    }

    void closingTheWindowWritesTheSettingsOnce()
    {
        attachCameras(1);
        const QString ini = Cache::config->ini_path;
        QFile::remove(ini);
        auto *w = new MainWindowQCamera;
        Cache::config->camera_exposure = -7; // a change made during the run
        QTest::qWait(300);
        QVERIFY2(!QFile::exists(ini), "nothing is written while the window lives");
        delete w;
        QVERIFY(QFile::exists(ini));
        QSettings settings(ini, QSettings::IniFormat);
        QCOMPARE(settings.value(Cache::config->ini_camera_exposure).toInt(), -7);
        QFile::remove(ini);
        QTest::qWait(100);
        QVERIFY2(!QFile::exists(ini), "the settings were written at closing only");
    }

    void cameraReportsShowAndHideTheCaption()
    {
        attachCameras(1);
        MainWindowQCamera w;
        w.show();
        QVERIFY(w.ui->lb_video_tip->isVisible());
        QVERIFY(waitOpen(w));
        QTRY_VERIFY_WITH_TIMEOUT(!w.ui->lb_video_tip->isVisible(), frameDeadline);
        w.ui->video->closeCamara();
        QTRY_VERIFY_WITH_TIMEOUT(w.ui->lb_video_tip->isVisible(), frameDeadline);
    }

    // ---- shooting ------------------------------------------------------

    void shootButtonWritesTheFirstPhotoAndMarksItsSlot()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.file_paths.value(0), document("IMG_1.jpg"), fileDeadline);
        QVERIFY(QFile::exists(document("IMG_1.jpg")));
        QCOMPARE(QImage(document("IMG_1.jpg")).size(), QSize(640, 480));
        QCOMPARE(slotStyle(w, 1), QString(newestSlotStyle));
        QCOMPARE(slotStyle(w, 10), QString(normalSlotStyle));
        QCOMPARE(slotPixmap(w, 1).size(), QSize(200, 200));
        QCOMPARE(w.currentPicIndex, 2);
        QCOMPARE(Cache::config->save_number, 2);
    }

    void photoDuringTimedShootingIsRefused()
    {
        attachCameras(1);
        Cache::config->image_shooting_time = 1;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        int ticks = 0;
        connect(w.timerShooting, &QTimer::timeout, [&ticks] { ++ticks; });
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(w.isTimeShooting);
        QCOMPARE(w.timerShooting->interval(), 1000);
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("定时拍摄中......"));
        // The timer's photos go on.
        QTRY_VERIFY_WITH_TIMEOUT(ticks >= 2 && documents().size() >= 2, fileDeadline);
        QVERIFY(w.isTimeShooting);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!w.isTimeShooting);
        // One photo per tick of the timer and none for the refused click.
        const int ticked = ticks;
        QTRY_COMPARE_WITH_TIMEOUT(documents().size(), ticked, fileDeadline);
        QTest::qWait(1000);
        QCOMPARE(documents().size(), ticked);
        QCOMPARE(ticks, ticked);
        QCOMPARE(answerer.boxes.size(), 1);
    }

    void timedSeriesWritesAPhotoEverySecondUntilStopped()
    {
        attachCameras(1);
        Cache::config->image_shooting_time = 1;
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n拍照中"));
        QCOMPARE(w.ui->lb_video_tip->text(), QString("定时拍照中......"));
        QVERIFY(w.ui->lb_video_tip->isVisible());
        QTest::qWait(3500);
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QVERIFY(!w.isTimeShooting);
        QVERIFY(!w.timerShooting->isActive());
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n定时"));
        QCOMPARE(w.ui->lb_video_tip->text(), QString(loadingTip));
        QVERIFY(!w.ui->lb_video_tip->isVisible());
        QTest::qWait(1500); // let the last photo land
        const int taken = documents().size();
        QVERIFY2(taken >= 2 && taken <= 4, qPrintable(QString("%1 photos in 3.5 s").arg(taken)));
        QTest::qWait(1500);
        QCOMPARE(documents().size(), taken);
        QCOMPARE(w.file_paths.value(taken - 1), document(QString("IMG_%1.jpg").arg(taken)));
    }

    void firstTimedPhotoComesAfterOneInterval()
    {
        attachCameras(1);
        Cache::config->image_shooting_time = 5;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QSignalSpy photos(w.ui->video, &QCameraView::sendTakePhotoImageSignal);
        QElapsedTimer clock;
        clock.start();
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QCOMPARE(w.timerShooting->interval(), 5000);
        QTRY_VERIFY_WITH_TIMEOUT(photos.count() >= 1, 15000);
        const qint64 first = clock.elapsed();
        // Qt lets a coarse timer fire up to 5% early.
        QVERIFY2(first >= 4700 && first < 8000,
                 qPrintable(QString("first photo after %1 ms").arg(first)));
    }

    void timedShootingIsRefusedWhileRecording()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.isVideoShooting);
        QCOMPARE(w.ui->btnShootingVideo->text(), QString("\n\n录像中"));
        QCOMPARE(w.ui->lb_video_tip->text(), QString("视频录像中......"));
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnShootingTime, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].text, QString("录像中......"));
        QVERIFY(!w.isTimeShooting);
        QVERIFY(!w.timerShooting->isActive());
        QCOMPARE(w.ui->btnShootingTime->text(), QString("\n\n定时"));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(!w.isVideoShooting);
        QCOMPARE(answerer.boxes.size(), 1);
    }

    void guardsRefuseWhileRecordingWithOneWarningAndNoChange()
    {
        attachCameras(2);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.isVideoShooting);
        ImageProcessing *engine = w.ui->video->m_imageProcessing;
        ModalAnswerer answerer;
        RefusedClick refused(answerer, "录像中......");
        QVERIFY(refused(w.ui->btnShooting));
        QVERIFY(refused(w.ui->btnleft_2));
        QVERIFY(refused(w.ui->btnright_2));
        QVERIFY(refused(w.ui->btnupdown_2));
        QCOMPARE(int(engine->angle), 0);
        QVERIFY(refused(w.ui->btnToggleDevice_2));
        QCOMPARE(Cache::config->camera_index, 0);
        QVERIFY(refused(w.ui->rb_Shooting_12));
        QCOMPARE(int(engine->shooting_type), 0);
        QVERIFY(w.ui->rb_Shooting_12->isChecked()); // the mark moves, the mode stays
        QVERIFY(refused(w.ui->rb_correction_11));
        QCOMPARE(int(engine->correction_type), 0);
        QVERIFY(refused(w.ui->btnSecCam1Con_2));
        QVERIFY(!w.cameraView2->isVisible());
        QVERIFY(refused(w.ui->pushButton));
        QVERIFY(!w.imageMerging->isVisible());
        QVERIFY(refused(w.ui->btnSavePdfTiff));
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
        QVERIFY(refused(w.ui->btnSetting_2));
        QVERIFY(!w.settingsDialog->isVisible());
        QTest::qWait(200);
        QCOMPARE(answerer.boxes.size(), refused.expected);
        // Options without a guard still work.
        w.ui->chMergeImage_2->setChecked(true);
        QVERIFY(engine->isTakePhotoChildCamera);
        QCOMPARE(answerer.boxes.size(), refused.expected);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(!w.isVideoShooting);
    }

    void recordingRightAfterSwitchingCamerasIsRefused()
    {
        attachCameras(2);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnToggleDevice_2, Qt::LeftButton);
        QVERIFY(w.ui->video->isOpenTip);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].text,
                 QString("视频切换中，请等摄像头准备就绪了再进行录制，谢谢......"));
        QVERIFY(!w.isVideoShooting);
        QCOMPARE(w.ui->btnShootingVideo->text(), QString("\n\n录像"));
        QVERIFY(!w.ui->video->isCameraVideo);
    }

    void recordingClosesSecondaryWindowsAndDialogsOnStartAndStop()
    {
        attachCameras(3);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(w.cameraView2->isVisible());
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QVERIFY(w.imageMerging->isVisible());
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.isVideoShooting);
        QVERIFY(!w.cameraView2->isVisible());
        QVERIFY(!w.imageMerging->isVisible());

        w.cameraView1->show();
        w.imageSavePDFOrTiff->show();
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(!w.isVideoShooting);
        QVERIFY(!w.cameraView1->isVisible());
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
    }

    void recordingLandsInTheStripWithTheRecordingIcon()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QVERIFY(w.ui->video->isCameraVideo);
        QTest::qWait(1500);
        QTest::mouseClick(w.ui->btnShootingVideo, Qt::LeftButton);
        QCOMPARE(w.ui->btnShootingVideo->text(), QString("\n\n录像"));
        QTRY_VERIFY_WITH_TIMEOUT(w.file_paths.value(0).endsWith(".avi"), fileDeadline);
        const QString avi = w.file_paths.value(0);
        QCOMPARE(QFileInfo(avi).absolutePath(), m_documents->path());
        QVERIFY2(frameCount(avi) >= 10, qPrintable(QString("%1 frames").arg(frameCount(avi))));
        QVERIFY2(!scaledIcon("/Resources/recored.png").isNull(),
                 "/Resources/recored.png is there to compare with");
        QCOMPARE(slotPixmap(w, 1).toImage(), scaledIcon("/Resources/recored.png"));
        QCOMPARE(slotStyle(w, 1), QString(newestSlotStyle));
    }

    // ---- camera and options ------------------------------------------

    void switchingAlternatesCamerasZeroAndTwo()
    {
        attachCameras(2);
        Cache::config->image_resolution = 1;
        Cache::config->image_fourcc = 1;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnToggleDevice_2, Qt::LeftButton);
        QCOMPARE(Cache::config->camera_index, 2);
        QCOMPARE(Cache::config->image_resolution, 0);
        QCOMPARE(Cache::config->image_fourcc, 0);
        QCOMPARE(w.ui->video->id, 2);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(2, "streaming"), QString("1"), frameDeadline);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "streaming"), QString("0"), frameDeadline);
        QCOMPARE(stateValue(2, "pixelformat"), QString("MJPG"));
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnToggleDevice_2, Qt::LeftButton);
        QCOMPARE(Cache::config->camera_index, 0);
        QCOMPARE(w.ui->video->id, 0);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "streaming"), QString("1"), frameDeadline);
    }

    void switchingFromAnotherCameraReopensIt()
    {
        attachCaptureNodes(3);
        Cache::config->camera_index = 1;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnToggleDevice_2, Qt::LeftButton);
        QCOMPARE(Cache::config->camera_index, 1);
        QCOMPARE(w.ui->video->id, 1);
        QVERIFY(waitOpen(w));
        QCOMPARE(stateValue(1, "streaming"), QString("1"));
        QVERIFY(stateValue(2, "streaming") != "1");
    }

    void switchingWhileASecondaryWindowIsOpenIsRefused()
    {
        attachCameras(2);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(w.cameraView2->isVisible());
        QTest::mouseClick(w.ui->btnToggleDevice_2, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].text, QString("画中画功能已经启用"));
        QCOMPARE(Cache::config->camera_index, 0);
        QCOMPARE(w.ui->video->id, 0);
    }

    void secondaryWindowNeedsThreeListedCameras()
    {
        attachCaptureNodes(2);
        MainWindowQCamera w;
        ModalAnswerer answerer;
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(answerer.boxes.size(), 1, 5000);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("未检测到子摄像头"));
        QVERIFY(!w.cameraView2->isVisible());
        // The first window's button needs only two.
        w.on_btnSecCamCon_2_clicked();
        QVERIFY(w.cameraView1->isVisible());
        QCOMPARE(answerer.boxes.size(), 1);
    }

    void secondaryWindowOpensBesideTheCornerAndShrinksThePreview()
    {
        attachCaptureNodes(3);
        Cache::config->painting_main_resolution = 11; // 640x480
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        *Cache::cameras = CameraInfo::discover();
        MainWindowQCamera w;
        w.move(120, 80);
        w.show();
        QVERIFY(waitOpen(w));
        QCOMPARE(w.ui->video->m_Image.size(), QSize(1280, 720));
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(w.cameraView2->isVisible());
        const QSize size = w.cameraView2->size();
        QCOMPARE(w.cameraView2->geometry(),
                 QRect(w.x() + 10, w.y() + 65, size.width(), size.height()));
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(2, "streaming"), QString("1"), frameDeadline);
        QTRY_COMPARE_WITH_TIMEOUT(w.ui->video->m_Image.size(), QSize(640, 480), frameDeadline);
        QTRY_VERIFY_WITH_TIMEOUT(!w.cameraView2->getChildImage().isNull(), frameDeadline);
        // Closing it returns the preview to the camera's own size.
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(!w.cameraView2->isVisible());
        QTRY_COMPARE_WITH_TIMEOUT(w.ui->video->m_Image.size(), QSize(1280, 720), frameDeadline);
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(2, "streaming"), QString("0"), frameDeadline);
    }

    void previewStaysSmallUntilTheLastSecondaryWindowCloses()
    {
        attachCaptureNodes(3);
        Cache::config->painting_main_resolution = 11; // 640x480
        qputenv("VCAM_0_SIZES", "1280x720,640x480");
        *Cache::cameras = CameraInfo::discover();
        MainWindowQCamera w;
        w.show();
        QVERIFY(waitOpen(w));
        // The first window's button is hidden; its slot still works.
        w.on_btnSecCamCon_2_clicked();
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QVERIFY(w.cameraView1->isVisible() && w.cameraView2->isVisible());
        QTRY_COMPARE_WITH_TIMEOUT(w.ui->video->m_Image.size(), QSize(640, 480), frameDeadline);
        // A window counts itself while it closes: with two open, closing
        // one keeps the preview small.
        w.cameraView1->close();
        QTest::qWait(1500);
        QCOMPARE(w.ui->video->m_Image.size(), QSize(640, 480));
        w.cameraView2->close();
        QTRY_COMPARE_WITH_TIMEOUT(w.ui->video->m_Image.size(), QSize(1280, 720), frameDeadline);
    }

    void rotationAndModeControlsReachTheCaptureThread()
    {
        attachCameras(1);
        MainWindowQCamera w;
        ImageProcessing *engine = w.ui->video->m_imageProcessing;
        QTest::mouseClick(w.ui->btnright_2, Qt::LeftButton);
        QCOMPARE(int(engine->angle), 1);
        QTest::mouseClick(w.ui->btnupdown_2, Qt::LeftButton);
        QCOMPARE(int(engine->angle), 3);
        QTest::mouseClick(w.ui->btnleft_2, Qt::LeftButton);
        QCOMPARE(int(engine->angle), 2);
        QTest::mouseClick(w.ui->rb_correction_12, Qt::LeftButton);
        QCOMPARE(int(engine->correction_type), 2);
        QTest::mouseClick(w.ui->rb_Shooting_13, Qt::LeftButton);
        QCOMPARE(int(engine->shooting_type), 3);
        QTest::mouseClick(w.ui->rb_Shooting_11, Qt::LeftButton);
        QCOMPARE(int(engine->shooting_type), 1);
        w.ui->cbSaveTiffImage_2->setChecked(true);
        QVERIFY(engine->isSaveTiff);
        QVERIFY(Cache::config->isSaveTiff);
        w.ui->cbSaveTiffImage_2->setChecked(false);
        QVERIFY(!engine->isSaveTiff);
        QVERIFY(!Cache::config->isSaveTiff);
        w.ui->chMergeImage_2->setChecked(true);
        QVERIFY(engine->isTakePhotoChildCamera);
    }

    void customCorrectionSendsNothing()
    {
        attachCameras(1);
        MainWindowQCamera w;
        w.show();
        ImageProcessing *engine = w.ui->video->m_imageProcessing;
        QTest::mouseClick(w.ui->rb_correction_11, Qt::LeftButton);
        QCOMPARE(int(engine->correction_type), 1);
        w.ui->rb_correction_13->show();
        QTest::mouseClick(w.ui->rb_correction_13, Qt::LeftButton);
        QVERIFY(w.ui->rb_correction_13->isChecked());
        QCOMPARE(int(engine->correction_type), 1);
    }

    void exposureControlsWhenShown()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        w.ui->tbExposure_2->setValue(-6);
        QCOMPARE(Cache::config->camera_exposure, -6);
        QCOMPARE(w.ui->lb_exposure_2->text(), QString("-6"));
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure_auto"), QString("1"), frameDeadline);
        w.ui->cbAutoExp_2->setChecked(false);
        QVERIFY(w.ui->tbExposure_2->isEnabled());
        w.ui->cbAutoExp_2->setChecked(true);
        QVERIFY(!w.ui->tbExposure_2->isEnabled());
        QTRY_COMPARE_WITH_TIMEOUT(stateValue(0, "exposure_auto"), QString("3"), frameDeadline);
    }

    void cancellingTheFolderDialogKeepsTheFolder()
    {
        attachCameras(1);
        MainWindowQCamera w;
        const QString before = Cache::config->user_documentsLocation;
        QString caption = "(no dialog)";
        QTimer::singleShot(300, [&] {
            if (auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget())) {
                caption = dialog->windowTitle();
                QCOMPARE(QDir(dialog->directory()).absolutePath(), QDir(before).absolutePath());
                dialog->reject();
            }
        });
        QTest::mouseClick(w.ui->btnSelectWorkDir_2, Qt::LeftButton);
        QVERIFY(caption != "(no dialog)");
        QCOMPARE(Cache::config->user_documentsLocation, before);
        QCOMPARE(w.ui->lbUserWorkDir_2->text(), before);

        // Choosing a folder takes it, and the next photo goes there.
        const QString chosen = m_scratch->path();
        QTimer::singleShot(300, [&] {
            if (auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget())) {
                dialog->setDirectory(chosen);
                QMetaObject::invokeMethod(dialog, "accept");
            }
        });
        QTest::mouseClick(w.ui->btnSelectWorkDir_2, Qt::LeftButton);
        QCOMPARE(QDir(Cache::config->user_documentsLocation).absolutePath(),
                 QDir(chosen).absolutePath());
        QCOMPARE(w.ui->lbUserWorkDir_2->text(), Cache::config->user_documentsLocation);
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QDir(chosen).filePath("IMG_1.jpg")), fileDeadline);
    }

    void openingTheFolderCreatesItAndHandsItToTheDesktop()
    {
        attachCameras(1);
        MainWindowQCamera w;
        UrlRecorder recorder;
        QDesktopServices::setUrlHandler("file", &recorder, "open");
        const QString folder = QDir(m_scratch->path()).filePath("a/b");
        Cache::config->user_documentsLocation = folder;
        QTest::mouseClick(w.ui->btnOpenUserWorkDir_2, Qt::LeftButton);
        QDesktopServices::unsetUrlHandler("file");
        QVERIFY(QDir(folder).exists());
        QCOMPARE(recorder.urls, QList<QUrl>() << QUrl::fromLocalFile(folder));
    }

    void compositionDialogsExcludeEachOther()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(w.imageSavePDFOrTiff->isVisible());
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QVERIFY(w.imageMerging->isVisible());
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(!w.imageMerging->isVisible());
        QVERIFY(w.imageSavePDFOrTiff->isVisible());
        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
        // The hidden check box opens and closes the joining dialog too.
        w.ui->check_image_merging_2->setChecked(true);
        QVERIFY(w.imageMerging->isVisible());
        w.ui->check_image_merging_2->setChecked(false);
        QVERIFY(!w.imageMerging->isVisible());
    }

    void openingADialogAgainClearsItsPictures()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        w.imageMerging->ui->imagebox1->setText("stale");
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QCOMPARE(w.imageMerging->ui->imagebox1->text(), QString("图像1"));
    }

    void settingsButtonShowsTheFilledDialogAndItsSaveReconfigures()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnSetting_2, Qt::LeftButton);
        QVERIFY(w.settingsDialog->isVisible());
        QCameraView *video = w.ui->video;
        QSignalSpy reconfigure(w.settingsDialog, SIGNAL(reConfigVideoSettingSignal()));
        QVERIFY(QMetaObject::invokeMethod(w.settingsDialog, "on_saveSetting_clicked"));
        QCOMPARE(reconfigure.count(), 1);
        QVERIFY(!w.settingsDialog->isVisible());
        QVERIFY2(video->isOpenTip, "the preview re-opens its camera");
        QVERIFY(waitOpen(w));
    }

    void perspectiveSettingReachesTheCaptureThreadAtStartAndAfterSave()
    {
        attachCameras(1);
        Cache::config->perspective_correction = true;
        MainWindowQCamera w;
        ImageProcessing *engine = w.ui->video->m_imageProcessing;
        QVERIFY(engine->perspective);

        QTest::mouseClick(w.ui->btnSetting_2, Qt::LeftButton);
        auto *box = w.settingsDialog->findChild<QCheckBox *>("checkBox_Perspective");
        QVERIFY(box && box->isChecked());
        box->click();
        QVERIFY(QMetaObject::invokeMethod(w.settingsDialog, "on_saveSetting_clicked"));
        QVERIFY(!engine->perspective);
        QCOMPARE(Cache::config->perspective_correction, false);
    }

    // ---- result strip ----------------------------------------------------

    void emptyListOnlyTakesTheRedMarkAway()
    {
        attachCameras(1);
        MainWindowQCamera w;
        const QString photo = writePhoto(m_scratch->path(), "a.jpg", 40, 30, Qt::blue);
        w.takePhotoImage({ photo }, 0);
        QCOMPARE(slotStyle(w, 1), QString(newestSlotStyle));
        w.takePhotoImage({}, 0);
        QCOMPARE(w.currentPicIndex, 2);
        QCOMPARE(slotStyle(w, 1), QString(normalSlotStyle));
        QCOMPARE(w.file_paths.value(0), photo);
        QCOMPARE(w.file_paths.value(1), QString());
    }

    void threeFilesFromSlotNineWrapAround()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QStringList photos;
        for (int i = 0; i < 3; ++i)
            photos << writePhoto(m_scratch->path(), QString("p%1.png").arg(i), 40, 30,
                                 QColor(10 * i, 0, 0));
        w.currentPicIndex = 9;
        w.ui->pic28->setStyleSheet(newestSlotStyle);
        w.takePhotoImage(photos, 0);
        QCOMPARE(w.file_paths.value(8), photos[0]);
        QCOMPARE(w.file_paths.value(9), photos[1]);
        QCOMPARE(w.file_paths.value(0), photos[2]);
        QCOMPARE(w.currentPicIndex, 2);
        QCOMPARE(slotStyle(w, 8), QString(normalSlotStyle));
        QCOMPARE(slotStyle(w, 1), QString(newestSlotStyle));
        QCOMPARE(slotStyle(w, 9),
                 QString("border-radius:3px;\n\tborder:1px groove gray;\n\tpadding:2px 4px;"));
        const QImage expected =
                QPixmap(photos[2])
                        .scaled(200, 200, Qt::IgnoreAspectRatio, Qt::FastTransformation)
                        .toImage();
        QCOMPARE(slotPixmap(w, 1).toImage(), expected);
        QVERIFY(w.ui->pic21->hasScaledContents());
    }

    void pdfShowsItsIconAndAClickOpensThePdf()
    {
        attachCameras(1);
        OpenWindow w;
        const QString pdf = QDir(m_scratch->path()).filePath("IMG_3.pdf");
        const QString avi = QDir(m_scratch->path()).filePath("2026_01_01_10_00_00.000.avi");
        const QString tiff = QDir(m_scratch->path()).filePath("IMG_4.tiff");
        w.takePhotoImage({ pdf, avi, tiff }, 1);
        QVERIFY2(!scaledIcon("/Resources/pdf.png").isNull(),
                 "/Resources/pdf.png is there to compare with");
        QCOMPARE(slotPixmap(w, 1).toImage(), scaledIcon("/Resources/pdf.png"));
        QVERIFY2(!scaledIcon("/Resources/recored.png").isNull(),
                 "/Resources/recored.png is there to compare with");
        QCOMPARE(slotPixmap(w, 2).toImage(), scaledIcon("/Resources/recored.png"));
        QVERIFY2(!scaledIcon("/Resources/tiff.png").isNull(),
                 "/Resources/tiff.png is there to compare with");
        QCOMPARE(slotPixmap(w, 3).toImage(), scaledIcon("/Resources/tiff.png"));
        QVERIFY(w.ui->pic21->hasScaledContents());
        QCOMPARE(w.file_paths.value(0), pdf);

        UrlRecorder recorder;
        QDesktopServices::setUrlHandler("file", &recorder, "open");
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(5, 5), Qt::RightButton, Qt::RightButton,
                          Qt::NoModifier);
        const bool consumed = w.eventFilter(w.ui->pic21, &press);
        QTest::mouseClick(w.ui->pic22, Qt::LeftButton);
        QDesktopServices::unsetUrlHandler("file");
        QVERIFY2(!consumed, "the press still reaches the label");
        QCOMPARE(recorder.urls,
                 QList<QUrl>() << QUrl::fromLocalFile(pdf) << QUrl::fromLocalFile(avi));
    }

    void upperCaseAndShortEndingsKeepTheirOwnPicture()
    {
        attachCameras(1);
        MainWindowQCamera w;
        const QString tif = writePhoto(m_scratch->path(), "scan.tif", 30, 20, Qt::green);
        const QString upper = QDir(m_scratch->path()).filePath("DOC.PDF");
        w.takePhotoImage({ tif, upper }, 0);
        const QImage expected =
                QPixmap(tif)
                        .scaled(200, 200, Qt::IgnoreAspectRatio, Qt::FastTransformation)
                        .toImage();
        QCOMPARE(slotPixmap(w, 1).toImage(), expected);
        QVERIFY2(slotPixmap(w, 2).isNull(),
                 "an upper-case PDF is loaded as a picture, which fails");
        QCOMPARE(w.file_paths.value(1), upper);
    }

    void clickingAPlaceholderOpensNothing()
    {
        attachCameras(1);
        OpenWindow w;
        UrlRecorder recorder;
        QDesktopServices::setUrlHandler("file", &recorder, "open");
        QTest::mouseClick(w.ui->pic25, Qt::LeftButton);
        QMouseEvent press(QEvent::MouseButtonPress, QPointF(1, 1), Qt::LeftButton, Qt::LeftButton,
                          Qt::NoModifier);
        const bool consumed = w.eventFilter(w.ui->pic210, &press);
        QDesktopServices::unsetUrlHandler("file");
        QVERIFY(!consumed);
        QVERIFY(recorder.urls.isEmpty());
    }

    void resultsOfKindOneAreNotSentBackToTheDialog()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(w.imageSavePDFOrTiff->isVisible());
        const QString photo = writePhoto(m_scratch->path(), "a.png", 40, 30, Qt::red);
        w.takePhotoImage({ photo }, 1);
        QVERIFY(w.imageSavePDFOrTiff->image_list.isEmpty());
        QCOMPARE(w.file_paths.value(0), photo);
        w.takePhotoImage({ photo }, 0);
        QCOMPARE(w.imageSavePDFOrTiff->image_list, QList<QString>() << photo);
    }

    // ---- whole stories ---------------------------------------------------

    void singleCorrectionWritesAStraightCutOut()
    {
        qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,0.45,0.5,18");
        qputenv("VCAM_0_SIZES", "1280x720");
        *Cache::cameras = CameraInfo::discover();
        Cache::config->image_out_resolution = 0;
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->rb_correction_11, Qt::LeftButton);
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(document("IMG_1.jpg")), fileDeadline);
        QTest::qWait(200);
        const QImage cut(document("IMG_1.jpg"));
        // The sheet is 576x360 on the desk; the cut-out is the sheet alone,
        // upright, so its corners are paper and not desk.
        QVERIFY2(qAbs(cut.width() - 576) <= 12 && qAbs(cut.height() - 360) <= 12,
                 qPrintable(QString("cut-out %1x%2").arg(cut.width()).arg(cut.height())));
        for (const QPoint &p :
             { QPoint(6, 6), QPoint(cut.width() - 7, 6), QPoint(6, cut.height() - 7),
               QPoint(cut.width() - 7, cut.height() - 7) })
            QVERIFY2(isBright(cut.pixelColor(p)),
                     qPrintable(QString("corner %1,%2").arg(p.x()).arg(p.y())));
    }

    void photoWithInsetCarriesTheSecondCamera()
    {
        attachCaptureNodes(3);
        qputenv("VCAM_0_SCENE", "sheets:0.5,0.5,1.0,1.0,0"); // all paper
        qputenv("VCAM_2_SCENE", "desk"); // all desk
        *Cache::cameras = CameraInfo::discover();
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->btnSecCam1Con_2, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(!w.cameraView2->getChildImage().isNull(), frameDeadline);
        QVERIFY(waitOpen(w));
        QTest::mouseClick(w.ui->chMergeImage_2, Qt::LeftButton, {},
                          QPoint(8, w.ui->chMergeImage_2->height() / 2));
        QVERIFY(w.ui->chMergeImage_2->isChecked());
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(document("IMG_1.jpg")), fileDeadline);
        QTest::qWait(200);
        const QImage photo(document("IMG_1.jpg"));
        QVERIFY(!photo.isNull());
        QVERIFY2(isDark(photo.pixelColor(20, 20)), "the inset of the desk camera sits top left");
        QVERIFY2(isBright(photo.pixelColor(photo.width() - 20, photo.height() - 20)),
                 "the rest is the paper");
    }

    void dialogsReceivePhotosAndTheirResultsLandInTheStrip()
    {
        attachCameras(1);
        MainWindowQCamera w;
        QVERIFY(waitOpen(w));
        QSignalSpy results(w.imageMerging, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        QTest::mouseClick(w.ui->pushButton, Qt::LeftButton);
        QVERIFY(w.imageMerging->isVisible());
        // The dialog's own photo button goes through the window's shooting.
        QTest::mouseClick(w.imageMerging->ui->btnPhoto, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.imageMerging->image1_path, document("IMG_1.jpg"), fileDeadline);
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.imageMerging->image2_path, document("IMG_2.jpg"), fileDeadline);
        QTest::mouseClick(w.imageMerging->ui->btnSave, Qt::LeftButton);
        QCOMPARE(results.count(), 1);
        QCOMPARE(results.at(0).at(1).toInt(), 1);
        QVERIFY(!w.imageMerging->isVisible());
        QCOMPARE(w.file_paths.value(2), document("IMG_3.jpg"));
        QCOMPARE(QImage(document("IMG_3.jpg")).size(), QSize(1280, 480));
        QCOMPARE(slotStyle(w, 3), QString(newestSlotStyle));

        QTest::mouseClick(w.ui->btnSavePdfTiff, Qt::LeftButton);
        QVERIFY(w.imageSavePDFOrTiff->isVisible());
        QTest::mouseClick(w.ui->btnShooting, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.imageSavePDFOrTiff->image_list.size(), 1, fileDeadline);
        QTest::mouseClick(w.imageSavePDFOrTiff->ui->btnPhoto, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.imageSavePDFOrTiff->image_list.size(), 2, fileDeadline);
        QCOMPARE(w.imageSavePDFOrTiff->image_list,
                 QList<QString>() << document("IMG_4.jpg") << document("IMG_5.jpg"));
        QTest::mouseClick(w.imageSavePDFOrTiff->ui->btnSaveTiff, Qt::LeftButton);
        QTRY_COMPARE_WITH_TIMEOUT(w.file_paths.value(5), document("IMG_6.tiff"), fileDeadline);
        QVERIFY(!w.imageSavePDFOrTiff->isVisible());
        std::vector<cv::Mat> pages;
        QVERIFY(cv::imreadmulti(document("IMG_6.tiff").toStdString(), pages));
        QCOMPARE(int(pages.size()), 2);
        QVERIFY2(!scaledIcon("/Resources/tiff.png").isNull(),
                 "/Resources/tiff.png is there to compare with");
        QCOMPARE(slotPixmap(w, 6).toImage(), scaledIcon("/Resources/tiff.png"));
    }
};

QTEST_MAIN(tst_MainWindow)
#include "tst_mainwindow.moc"
