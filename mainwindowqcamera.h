#ifndef MAINWINDOWQCAMERA_H
#define MAINWINDOWQCAMERA_H

#include <QList>
#include <QMainWindow>
#include <QString>

#include <functional>

class CameraViewDialog;
class ImageMergingDialog;
class ImageSavePDFOrTiffDialog;
class LevelMeter;
class QButtonGroup;
class QDialog;
class QLabel;
class QTimer;
class SettingDialog;
class ShootingKeys;

QT_BEGIN_NAMESPACE
namespace Ui {
class MainWindowQCamera;
}
QT_END_NAMESPACE

// The operator's main window: the live preview of the main camera, the
// controls that change what it shows and how photos are made, the three ways
// of shooting, and the strip of the newest files.
class MainWindowQCamera : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindowQCamera(QWidget *parent = nullptr);
    ~MainWindowQCamera() override;

    Ui::MainWindowQCamera *ui;
    SettingDialog *settingsDialog;
    CameraViewDialog *cameraView1;
    CameraViewDialog *cameraView2;
    ImageMergingDialog *imageMerging;
    ImageSavePDFOrTiffDialog *imageSavePDFOrTiff;
    QButtonGroup *buttonGroupCorrection;
    QButtonGroup *buttonGroupShooting;
    QTimer *timerShooting;
    int currentPicIndex;
    int picCount;
    QList<QString> file_paths;
    bool isReady;
    bool isTimeShooting;
    bool isVideoShooting;
    bool isPageTurnShooting; // the running series is the page-turn one
    ShootingKeys *shootingKeys;
    LevelMeter *levelMeter; // beside the recording caption while sound is recorded

    void takePhoto();
    bool checkShootingVideo();
    bool checkShootingTime();
    // The form has no ID-card button, so this is a plain member rather than
    // a slot: Qt's by-name wiring would otherwise warn that it has no signal.
    void on_btnIDCard_clicked();

public slots:
    // Shooting
    void onShootingTimer();
    void onPageTurnSettled();
    void on_btnShooting_clicked();
    void on_btnShootingTime_clicked();
    void on_btnShootingVideo_clicked();

    // Camera and options
    void on_btnleft_2_clicked();
    void on_btnupdown_2_clicked();
    void on_btnright_2_clicked();
    void on_btnToggleDevice_2_clicked();
    void buttonGroupCorrectionClicked(int id);
    void buttonGroupShootingTypeClicked(int id);
    void on_btnSecCamCon_2_clicked();
    void on_btnSecCam1Con_2_clicked();
    void changePaintingResolution(bool opened);
    void on_chMergeImage_2_stateChanged(int state);
    void on_cbAutoExp_2_stateChanged(int state);
    void on_tbExposure_2_valueChanged(int value);
    void on_btnOpenUserWorkDir_2_clicked();
    void on_btnSelectWorkDir_2_clicked();
    void on_cbSaveTiffImage_2_stateChanged(int state);
    void on_check_image_merging_2_stateChanged(int state);
    void on_pushButton_clicked();
    void on_btnSavePdfTiff_clicked();
    void on_btnSetting_2_clicked();
    void videoSetting();
    void reConfigVideoSetting();
    void openCamera();
    void closeCamera();

    // Result strip
    void takePhotoImage(QList<QString> files, int kind);

protected:
    void paintEvent(QPaintEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void warn(const QString &text);
    QLabel *thumbnailSlot(int number) const;
    void toggleSecondaryWindow(CameraViewDialog *window, int camerasNeeded);
    void toggleCompositionDialog(QDialog *dialog, QDialog *other,
                                 const std::function<void()> &init);
    static QString thumbnailFor(const QString &file);
    void showInSlot(int n, const QString &file);
    void markNewest(int previous, int last);
    // The constructor's steps, in their order.
    void placeLevelMeter();
    void wireDialogs();
    void setUpResultStrip();
    void setUpModeGroups();
    void hideUnusedControls();
    void setUpPictures();
    void setUpShootingKeys();
    void setBigButtonStyle();
    void applyExtensionSettings();
    void startSeries();
    void stopSeries();
    bool dialogOpen() const;
    void showRecordingSound();
};

#endif // MAINWINDOWQCAMERA_H
