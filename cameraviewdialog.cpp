#include "cameraviewdialog.h"
#include "ui_cameraviewdialog.h"

#include <QCloseEvent>

CameraViewDialog::CameraViewDialog(QWidget *parent)
    : QDialog(parent), ui(new Ui::CameraViewDialog), camera(nullptr), driverId(0)
{
    ui->setupUi(this);
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);
    connect(ui->iVideo, SIGNAL(openCameraSignal()), this, SLOT(openCamera()));
    connect(ui->iVideo, SIGNAL(closeCameraSignal()), this, SLOT(closeCamera()));
}

CameraViewDialog::~CameraViewDialog()
{
    delete ui;
}

void CameraViewDialog::SetCamera(int index)
{
    ui->iVideo->init(index);
    ui->iVideo->changeCameraResolution(true, false);
}

QImage CameraViewDialog::getChildImage()
{
    return ui->iVideo->wholeImage();
}

void CameraViewDialog::openCamera()
{
    ui->label->hide();
}

void CameraViewDialog::closeCamera()
{
    ui->label->show();
}

void CameraViewDialog::readFarme(QImage)
{
    // Declared for callers and connections that may name it; nothing to do.
}

void CameraViewDialog::closeEvent(QCloseEvent *e)
{
    ui->iVideo->closeCamara();
    e->accept();
    emit closeView(false);
}
