#include "mainwindowqcamera.h"
#include "ui_mainwindowqcamera.h"

#include "cache.h"
#include "safeindex.h"

#include <QPixmap>

namespace {

QString sizeText(const QSize &size)
{
    if (!size.isValid())
        return QStringLiteral("设备默认");
    return QString("%1x%2").arg(size.width()).arg(size.height());
}

} // namespace

MainWindowQCamera::MainWindowQCamera(QWidget *parent)
    : QMainWindow(parent), ui(new Ui::MainWindowQCamera)
{
    ui->setupUi(this);
    ui->picLogo_2->setPixmap(QPixmap(Cache::config->exe_path + "/Resources/brivora.png"));
    showCameras();
    showChosenSettings();
    // The live picture of the camera the settings choose (the first one when
    // the stored choice does not exist).
    if (!Cache::cameras->isEmpty())
        ui->video->init(validCameraIndex(Cache::config->camera_index));
}

MainWindowQCamera::~MainWindowQCamera()
{
    delete ui;
}

void MainWindowQCamera::showCameras()
{
    for (const CameraInfo &camera : *Cache::cameras) {
        QStringList sizes;
        for (const QSize &size : camera.supportedResolutions)
            sizes << sizeText(size);
        ui->deviceList->addItem(QString("%1  %2  [%3]")
                                    .arg(camera.deviceName, camera.description,
                                         sizes.isEmpty() ? QStringLiteral("无分辨率")
                                                         : sizes.join(", ")));
    }
}

void MainWindowQCamera::showChosenSettings()
{
    const CameraInfo *camera = cameraAt(Cache::config->camera_index);
    ui->lbCurrentDevice->setText(camera ? QString("%1  %2").arg(camera->deviceName, camera->description)
                                        : QString());
    ui->lbCaptureSize->setText(sizeText(currentCaptureSize()));
    ui->lbOutputSize->setText(sizeText(outputSizeAt(Cache::config->image_out_resolution)));
    ui->lbUserWorkDir_2->setText(Cache::config->user_documentsLocation);
}
