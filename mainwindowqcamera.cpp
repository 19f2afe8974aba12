#include "mainwindowqcamera.h"
#include "ui_mainwindowqcamera.h"

#include "cache.h"
#include "cameraviewdialog.h"
#include "imagemergingdialog.h"
#include "imagesavepdfortiffdialog.h"
#include "levelmeter.h"
#include "modecodes.h"
#include "safeindex.h"
#include "settingdialog.h"
#include "shootingkeys.h"
#include "startup.h"

#include <QApplication>
#include <QButtonGroup>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QIcon>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QPixmap>
#include <QStyleOption>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

namespace {

const char *const loadingTip = "视频加载中，请稍候......";

const char *const normalSlotStyle =
        "border-radius:3px;border:1px groove gray;padding:2px 4px;background-color:transparent";
const char *const newestSlotStyle =
        "border-radius:3px;border:1px groove gray;padding:2px 4px;background-color:red;";

// Switching the main camera uses the fixed pair 0 and 2; any other camera
// is its own "other".
int otherCamera(int index)
{
    if (index == 0)
        return 2;
    if (index == 2)
        return 0;
    return index;
}

} // namespace

MainWindowQCamera::MainWindowQCamera(QWidget *parent)
    : QMainWindow(parent),
      ui(new Ui::MainWindowQCamera),
      settingsDialog(nullptr),
      cameraView1(nullptr),
      cameraView2(nullptr),
      imageMerging(nullptr),
      imageSavePDFOrTiff(nullptr),
      buttonGroupCorrection(nullptr),
      buttonGroupShooting(nullptr),
      timerShooting(nullptr),
      currentPicIndex(1),
      picCount(10),
      isReady(false),
      isTimeShooting(false),
      isVideoShooting(false),
      isPageTurnShooting(false),
      shootingKeys(nullptr),
      levelMeter(nullptr)
{
    ui->setupUi(this);
    placeLevelMeter();
    ui->lbUserWorkDir_2->setText(Cache::config->user_documentsLocation);
    wireDialogs();
    setUpResultStrip();

    // A camera that is no longer attached (or a negative number from a
    // hand-edited file) falls back to the first camera.
    Cache::config->camera_index = validCameraIndex(Cache::config->camera_index);

    setUpModeGroups();
    isReady = true;
    connect(ui->video, SIGNAL(openCameraSignal()), this, SLOT(openCamera()));
    connect(ui->video, SIGNAL(closeCameraSignal()), this, SLOT(closeCamera()));
    hideUnusedControls();

    ui->video->init(Cache::config->camera_index);
    applyExtensionSettings();

    setUpPictures();
    setUpShootingKeys();
}

// The meter sits just below the caption, which is centred on the preview;
// the layout leaves the caption's own size alone.
void MainWindowQCamera::placeLevelMeter()
{
    levelMeter = new LevelMeter(ui->lb_video_tip);
    auto *meterPlace = new QVBoxLayout(ui->lb_video_tip);
    meterPlace->setSizeConstraint(QLayout::SetNoConstraint);
    meterPlace->addStretch(1);
    meterPlace->addSpacing(64);
    meterPlace->addWidget(levelMeter, 0, Qt::AlignHCenter);
    meterPlace->addStretch(1);
}

// The preview's photos, the series timer and the dialogs this window owns,
// with what they report wired to it.
void MainWindowQCamera::wireDialogs()
{
    connect(ui->video, SIGNAL(sendTakePhotoImageSignal(QList<QString>, int)), this,
            SLOT(takePhotoImage(QList<QString>, int)));

    timerShooting = new QTimer(this);
    connect(timerShooting, &QTimer::timeout, this, &MainWindowQCamera::onShootingTimer);
    connect(ui->video, &QCameraView::pageTurnSettled, this, &MainWindowQCamera::onPageTurnSettled);

    settingsDialog = new SettingDialog(this);
    connect(settingsDialog, SIGNAL(videSettingSignal()), this, SLOT(videoSetting()));
    connect(settingsDialog, SIGNAL(reConfigVideoSettingSignal()), this,
            SLOT(reConfigVideoSetting()));

    cameraView1 = new CameraViewDialog(this);
    cameraView2 = new CameraViewDialog(this);
    connect(cameraView1, &CameraViewDialog::closeView, this,
            &MainWindowQCamera::changePaintingResolution);
    connect(cameraView2, &CameraViewDialog::closeView, this,
            &MainWindowQCamera::changePaintingResolution);

    imageMerging = new ImageMergingDialog(this);
    connect(imageMerging, SIGNAL(takePhotoSignals()), this, SLOT(on_btnShooting_clicked()));
    connect(imageMerging, SIGNAL(saveImageMergingSignals(QList<QString>, int)), this,
            SLOT(takePhotoImage(QList<QString>, int)));

    imageSavePDFOrTiff = new ImageSavePDFOrTiffDialog(this);
    connect(imageSavePDFOrTiff, SIGNAL(takePhotoSignals()), this, SLOT(on_btnShooting_clicked()));
    connect(imageSavePDFOrTiff, SIGNAL(saveImageMergingSignals(QList<QString>, int)), this,
            SLOT(takePhotoImage(QList<QString>, int)));
}

// The strip of the last results: every slot shows the placeholder and
// reports its clicks here.
void MainWindowQCamera::setUpResultStrip()
{
    const QPixmap placeholder(resourcePath("/Resources/back/Picture_90.png"));
    for (int n = 1; n <= picCount; ++n) {
        file_paths.append(QString());
        if (QLabel *slot = thumbnailSlot(n)) {
            slot->installEventFilter(this);
            slot->setPixmap(placeholder);
        }
    }
}

// The correction and shooting-type radio buttons, whose ids are the codes
// they send.
void MainWindowQCamera::setUpModeGroups()
{
    buttonGroupCorrection = new QButtonGroup(this);
    buttonGroupCorrection->addButton(ui->rb_correction_10, Correction::None);
    buttonGroupCorrection->addButton(ui->rb_correction_11, Correction::Single);
    buttonGroupCorrection->addButton(ui->rb_correction_12, Correction::Several);
    buttonGroupCorrection->addButton(ui->rb_correction_13, Correction::Custom);
    connect(buttonGroupCorrection, &QButtonGroup::idClicked, this,
            &MainWindowQCamera::buttonGroupCorrectionClicked);

    buttonGroupShooting = new QButtonGroup(this);
    buttonGroupShooting->addButton(ui->rb_Shooting_10, Shooting::Colour);
    buttonGroupShooting->addButton(ui->rb_Shooting_11, Shooting::Grey);
    buttonGroupShooting->addButton(ui->rb_Shooting_12, Shooting::BlackAndWhite);
    buttonGroupShooting->addButton(ui->rb_Shooting_13, Shooting::WhiteBackground);
    connect(buttonGroupShooting, &QButtonGroup::idClicked, this,
            &MainWindowQCamera::buttonGroupShootingTypeClicked);
}

// Controls of the form this window does not offer.
void MainWindowQCamera::hideUnusedControls()
{
    ui->rb_correction_13->hide();
    ui->lb_exposure_2->hide();
    ui->lb_exposure_header_2->hide();
    ui->cbAutoExp_2->hide();
    ui->tbExposure_2->hide();
    ui->btnSecCamCon_2->hide();
    ui->check_image_merging_2->hide();
    ui->cbSaveTiffImage_2->hide();
}

// The logo and the buttons' icons, from the pictures beside the program.
void MainWindowQCamera::setUpPictures()
{
    // The logo is the splash picture, shown whole in the column's width.
    const QPixmap logo(resourcePath("/Resources/brivora.png"));
    if (!logo.isNull())
        ui->picLogo_2->setPixmap(
                logo.scaled(ui->picLogo_2->size(), Qt::KeepAspectRatio, Qt::SmoothTransformation));

    ui->btnleft_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_oleft.png")));
    ui->btnupdown_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_sync.png")));
    ui->btnright_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_oright.png")));
    ui->btnToggleDevice_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_toggle_16.png")));
    ui->btnSecCam1Con_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_webcam.png")));
    ui->btnSecCamCon_2->setIcon(QIcon(resourcePath("/Resources/icon/icon_webcam.png")));
    setBigButtonStyle();
}

// Space takes a photo and F5 starts or stops a series, from any control.
void MainWindowQCamera::setUpShootingKeys()
{
    shootingKeys = new ShootingKeys(this, [this] { return dialogOpen(); });
    connect(shootingKeys, &ShootingKeys::photoPressed, this,
            &MainWindowQCamera::on_btnShooting_clicked);
    connect(shootingKeys, &ShootingKeys::seriesPressed, this,
            &MainWindowQCamera::on_btnShootingTime_clicked);
    ui->btnShooting->setToolTip(QStringLiteral("拍照（空格键）"));
    ui->btnShootingTime->setToolTip(QStringLiteral("定时拍摄（F5）"));
}

MainWindowQCamera::~MainWindowQCamera()
{
    if (isReady)
        Cache::config->save();
    delete ui;
}

// The big buttons paint their icon at the top as a background picture; the
// folder part already ends in a slash, so the joined URL holds a doubled
// slash, which resolves to the same file.
void MainWindowQCamera::setBigButtonStyle()
{
    const QString style = QStringLiteral(
            "border:1px groove gray;border-radius:3px;padding:2px 4px;"
            "background-image: url(%1/%2);background-repeat: no-repeat;background-position: top ;");
    const QString folder = resourcePath("/Resources/icon/");
    ui->btnShooting->setStyleSheet(style.arg(folder, "icon_snap_32.png"));
    ui->btnSetting_2->setStyleSheet(style.arg(folder, "icon_setting_32.png"));
    ui->btnShootingTime->setStyleSheet(style.arg(folder, "icon_snap_clock.png"));
    ui->btnShootingVideo->setStyleSheet(style.arg(folder, "icon_video_32_line.png"));
}

// Lets style sheets paint the window's background.
void MainWindowQCamera::paintEvent(QPaintEvent *)
{
    QStyleOption option;
    option.initFrom(this);
    QPainter painter(this);
    style()->drawPrimitive(QStyle::PE_Widget, &option, &painter, this);
}

void MainWindowQCamera::warn(const QString &text)
{
    QMessageBox::warning(this, QStringLiteral("警告"), text);
}

// ---------------------------------------------------------------- shooting

void MainWindowQCamera::takePhoto()
{
    const QImage first = cameraView1->getChildImage();
    const QImage second = cameraView2->getChildImage();
    ui->video->setTakePhotoCammond(first, second, cameraView1->isVisible(),
                                   cameraView2->isVisible());
}

void MainWindowQCamera::onShootingTimer()
{
    takePhoto();
}

bool MainWindowQCamera::checkShootingVideo()
{
    if (!isVideoShooting)
        return false;
    warn(QStringLiteral("录像中......"));
    return true;
}

bool MainWindowQCamera::checkShootingTime()
{
    if (!isTimeShooting)
        return false;
    warn(QStringLiteral("定时拍摄中......"));
    return true;
}

void MainWindowQCamera::on_btnShooting_clicked()
{
    if (checkShootingVideo() || checkShootingTime())
        return;
    takePhoto();
}

void MainWindowQCamera::on_btnShootingTime_clicked()
{
    if (checkShootingVideo())
        return;
    if (imageMerging->isVisible())
        imageMerging->close();
    if (imageSavePDFOrTiff->isVisible())
        imageSavePDFOrTiff->close();

    if (isTimeShooting) {
        stopSeries();
        ui->btnShootingTime->setText(QStringLiteral("\n\n定时"));
        ui->lb_video_tip->setText(QString::fromUtf8(loadingTip));
        ui->lb_video_tip->hide();
    } else {
        ui->btnShootingTime->setText(QStringLiteral("\n\n拍照中"));
        startSeries();
        ui->lb_video_tip->show();
    }
    isTimeShooting = !isTimeShooting;
}

// The series runs the way the settings say when it starts: on a fixed
// interval, or a photo each time a turned page has come to rest.
void MainWindowQCamera::startSeries()
{
    isPageTurnShooting = Cache::config->shooting_mode == ShootingModePageTurn;
    if (isPageTurnShooting) {
        ui->lb_video_tip->setText(QStringLiteral("自动拍摄中......"));
        ui->video->setPageTurnSeries(true);
        return;
    }
    ui->lb_video_tip->setText(QStringLiteral("定时拍照中......"));
    // A zero or negative interval from a hand-edited settings file would
    // shoot on every pass of the event loop; one second is the least.
    timerShooting->start(qMax(1, Cache::config->image_shooting_time) * 1000);
}

void MainWindowQCamera::stopSeries()
{
    timerShooting->stop();
    if (isPageTurnShooting)
        ui->video->setPageTurnSeries(false);
    isPageTurnShooting = false;
}

// A request the capture thread sent before the series stopped is dropped.
void MainWindowQCamera::onPageTurnSettled()
{
    if (isTimeShooting && isPageTurnShooting)
        takePhoto();
}

// The settings and the two composition dialogs, and any warning box.
bool MainWindowQCamera::dialogOpen() const
{
    return QApplication::activeModalWidget() || settingsDialog->isVisible()
            || imageMerging->isVisible() || imageSavePDFOrTiff->isVisible();
}

void MainWindowQCamera::on_btnShootingVideo_clicked()
{
    if (checkShootingTime())
        return;
    if (ui->video->isOpenTip) {
        warn(QStringLiteral("视频切换中，请等摄像头准备就绪了再进行录制，谢谢......"));
        return;
    }
    if (imageMerging->isVisible())
        imageMerging->close();
    if (imageSavePDFOrTiff->isVisible())
        imageSavePDFOrTiff->close();
    if (cameraView1->isVisible())
        cameraView1->close();
    if (cameraView2->isVisible())
        cameraView2->close();

    if (isVideoShooting) {
        ui->btnShootingVideo->setText(QStringLiteral("\n\n录像"));
        ui->lb_video_tip->setText(QString::fromUtf8(loadingTip));
        ui->lb_video_tip->hide();
        levelMeter->stop();
        ui->video->recordEnd();
    } else {
        ui->btnShootingVideo->setText(QStringLiteral("\n\n录像中"));
        ui->lb_video_tip->setText(QStringLiteral("视频录像中......"));
        ui->lb_video_tip->show();
        ui->video->recordBegin();
        showRecordingSound();
    }
    isVideoShooting = !isVideoShooting;
}

// ------------------------------------------------------ camera and options

void MainWindowQCamera::on_btnleft_2_clicked()
{
    if (checkShootingVideo())
        return;
    ui->video->setAngle(-1);
}

void MainWindowQCamera::on_btnupdown_2_clicked()
{
    if (checkShootingVideo())
        return;
    ui->video->setAngle(0);
}

void MainWindowQCamera::on_btnright_2_clicked()
{
    if (checkShootingVideo())
        return;
    ui->video->setAngle(1);
}

void MainWindowQCamera::on_btnToggleDevice_2_clicked()
{
    if (checkShootingVideo() || checkShootingTime())
        return;
    if (cameraView1->isVisible() || cameraView2->isVisible()) {
        warn(QStringLiteral("画中画功能已经启用"));
        return;
    }
    Config *config = Cache::config;
    config->camera_index = otherCamera(config->camera_index);
    config->image_resolution = 0;
    config->image_fourcc = 0;
    ui->video->changeCamera(config->camera_index, 0, 0);
}

void MainWindowQCamera::buttonGroupCorrectionClicked(int id)
{
    if (checkShootingVideo())
        return;
    // The custom mode needs corners from the operator, which this window
    // does not ask for.
    if (id != Correction::Custom)
        ui->video->setCameraCorrection(id);
}

void MainWindowQCamera::buttonGroupShootingTypeClicked(int id)
{
    if (checkShootingVideo())
        return;
    ui->video->setCameraShootType(id);
}

void MainWindowQCamera::on_btnSecCamCon_2_clicked()
{
    toggleSecondaryWindow(cameraView1, 2);
}

void MainWindowQCamera::on_btnSecCam1Con_2_clicked()
{
    toggleSecondaryWindow(cameraView2, 3);
}

void MainWindowQCamera::toggleSecondaryWindow(CameraViewDialog *window, int camerasNeeded)
{
    if (checkShootingVideo())
        return;
    if (Cache::cameras->size() < camerasNeeded) {
        warn(QStringLiteral("未检测到子摄像头"));
        return;
    }
    if (window->isVisible()) {
        window->close();
        return;
    }
    window->SetCamera(otherCamera(Cache::config->camera_index));
    window->show();
    window->setGeometry(x() + 10, y() + 65, window->width(), window->height());
    changePaintingResolution(true);
}

void MainWindowQCamera::changePaintingResolution(bool opened)
{
    if (opened) {
        ui->video->changeCameraResolution(true, true);
        return;
    }
    const int visible = int(cameraView1->isVisible()) + int(cameraView2->isVisible());
    if (visible > 1)
        return;
    ui->video->changeCameraResolution(false, true);
}

void MainWindowQCamera::on_chMergeImage_2_stateChanged(int state)
{
    ui->video->setTakePhotoChildCamera(state == Qt::Checked);
}

void MainWindowQCamera::on_cbAutoExp_2_stateChanged(int state)
{
    if (state == Qt::Checked) {
        ui->tbExposure_2->setEnabled(false);
        ui->video->setCameraExposure(automaticExposure);
    } else {
        ui->tbExposure_2->setEnabled(true);
    }
}

void MainWindowQCamera::on_tbExposure_2_valueChanged(int value)
{
    Cache::config->camera_exposure = value;
    ui->lb_exposure_2->setText(QString::number(value));
    ui->video->setCameraExposure(value);
}

void MainWindowQCamera::on_btnOpenUserWorkDir_2_clicked()
{
    const QString path = Cache::config->user_documentsLocation;
    if (!QDir(path).exists())
        QDir().mkpath(path);
    QDesktopServices::openUrl(QUrl::fromLocalFile(path));
}

void MainWindowQCamera::on_btnSelectWorkDir_2_clicked()
{
    const QString path = QFileDialog::getExistingDirectory(
            this, QString(), Cache::config->user_documentsLocation, QFileDialog::ShowDirsOnly);
    if (path.isEmpty())
        return;
    Cache::config->user_documentsLocation = path;
    ui->lbUserWorkDir_2->setText(path);
}

void MainWindowQCamera::on_cbSaveTiffImage_2_stateChanged(int state)
{
    const bool on = state == Qt::Checked;
    ui->video->setSaveImageToTiff(on);
    Cache::config->isSaveTiff = on;
}

void MainWindowQCamera::on_check_image_merging_2_stateChanged(int state)
{
    if (state == Qt::Checked) {
        if (checkShootingVideo() || checkShootingTime())
            return;
        if (!imageMerging->isVisible()) {
            imageMerging->init();
            imageMerging->show();
        }
    } else if (imageMerging->isVisible()) {
        imageMerging->close();
    }
}

void MainWindowQCamera::on_pushButton_clicked()
{
    if (checkShootingVideo() || checkShootingTime())
        return;
    toggleCompositionDialog(imageMerging, imageSavePDFOrTiff, [this] { imageMerging->init(); });
}

void MainWindowQCamera::on_btnSavePdfTiff_clicked()
{
    if (checkShootingVideo() || checkShootingTime())
        return;
    toggleCompositionDialog(imageSavePDFOrTiff, imageMerging,
                            [this] { imageSavePDFOrTiff->init(); });
}

// The two composition dialogs exclude each other: opening one closes the
// other first.
void MainWindowQCamera::toggleCompositionDialog(QDialog *dialog, QDialog *other,
                                                const std::function<void()> &init)
{
    if (dialog->isVisible()) {
        dialog->close();
        return;
    }
    if (other->isVisible())
        other->close();
    init();
    dialog->show();
}

void MainWindowQCamera::on_btnSetting_2_clicked()
{
    if (checkShootingVideo())
        return;
    if (!settingsDialog->isVisible()) {
        settingsDialog->show();
        settingsDialog->init();
    }
}

void MainWindowQCamera::videoSetting()
{
    ui->video->videoSettingOpenWindow();
}

void MainWindowQCamera::reConfigVideoSetting()
{
    ui->video->reConfigVideoSetting();
    applyExtensionSettings();
}

// The main preview follows the extension settings; secondary windows show
// their camera plainly.
void MainWindowQCamera::applyExtensionSettings()
{
    ui->video->setPerspectiveCorrection(Cache::config->perspective_correction);
}

void MainWindowQCamera::openCamera()
{
    ui->lb_video_tip->hide();
}

void MainWindowQCamera::closeCamera()
{
    ui->lb_video_tip->show();
}

void MainWindowQCamera::on_btnIDCard_clicked()
{
    // Declared for callers and connections that may name it; nothing to do.
}

// ------------------------------------------------------------ result strip

QLabel *MainWindowQCamera::thumbnailSlot(int number) const
{
    return findChild<QLabel *>(QString("pic2%1").arg(number));
}

void MainWindowQCamera::takePhotoImage(QList<QString> files, int kind)
{
    if (imageMerging->isVisible() && kind == ResultKind::FromCamera)
        imageMerging->setImage(files);
    if (imageSavePDFOrTiff->isVisible() && kind == ResultKind::FromCamera)
        imageSavePDFOrTiff->setImage(files);

    const int previous = currentPicIndex - 1;
    int last = 0;
    for (const QString &file : files) {
        if (currentPicIndex < 1)
            currentPicIndex = 1;
        showInSlot(currentPicIndex, file);
        last = currentPicIndex;
        currentPicIndex += 1;
        if (currentPicIndex > picCount)
            currentPicIndex = 1;
    }
    markNewest(previous == 0 ? picCount : previous, last);
}

// The picture a result file is shown by: documents and videos by their
// kind's icon (only the exact lower-case ending counts), pictures by
// themselves.
QString MainWindowQCamera::thumbnailFor(const QString &file)
{
    if (file.endsWith("pdf"))
        return resourcePath("/Resources/pdf.png");
    if (file.endsWith("avi"))
        return resourcePath("/Resources/recored.png");
    if (file.endsWith("tiff"))
        return resourcePath("/Resources/tiff.png");
    return file;
}

// Shows file in the strip's slot number n and remembers it there.
void MainWindowQCamera::showInSlot(int n, const QString &file)
{
    const QString shown = thumbnailFor(file);
    const QPixmap pixmap(shown);
    if (QLabel *slot = thumbnailSlot(n)) {
        // The test runs on the substituted path, so icons take the scaled
        // branch too; only an unchanged pdf/avi path is shown as it is.
        if (shown.endsWith("pdf") || shown.endsWith("avi")) {
            slot->setPixmap(pixmap);
            slot->setScaledContents(false);
        } else {
            slot->setPixmap(pixmap.scaled(200, 200, Qt::IgnoreAspectRatio, Qt::FastTransformation));
            slot->setScaledContents(true);
        }
    }
    // A slot number outside the strip (never from this window's own
    // counting) must not index past the list.
    if (n - 1 < file_paths.size())
        file_paths[n - 1] = file;
}

// The frame moves from the slot that was newest to the one that is now
// (none when nothing came).
void MainWindowQCamera::markNewest(int previous, int last)
{
    if (QLabel *slot = thumbnailSlot(previous))
        slot->setStyleSheet(normalSlotStyle);
    if (last != 0) {
        if (QLabel *slot = thumbnailSlot(last))
            slot->setStyleSheet(newestSlotStyle);
    }
}

bool MainWindowQCamera::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::MouseButtonPress && watched->objectName().startsWith("pic2")) {
        bool ok = false;
        const int number = QString(watched->objectName()).remove("pic2").toInt(&ok);
        const int index = ok ? number - 1 : -1;
        if (index >= 0 && index < file_paths.size() && !file_paths[index].isEmpty())
            QDesktopServices::openUrl(QUrl::fromLocalFile(file_paths[index]));
    }
    // The press is never consumed: the label still receives it.
    return QMainWindow::eventFilter(watched, event);
}

// Recording with sound: the meter while it runs, or the warning that this
// recording has none.
void MainWindowQCamera::showRecordingSound()
{
    if (ui->video->recordingHasSound())
        levelMeter->follow([this] { return ui->video->soundLevel(); });
    else if (ui->video->soundMissing)
        warn(QStringLiteral("未找到麦克风，本次录像不含声音"));
}
