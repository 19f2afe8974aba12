#ifndef CAMERAVIEWDIALOG_H
#define CAMERAVIEWDIALOG_H

#include <QDialog>
#include <QImage>

class QCloseEvent;

QT_BEGIN_NAMESPACE
namespace Ui {
class CameraViewDialog;
}
QT_END_NAMESPACE

// A small window with the live picture of a secondary camera, whose latest
// picture a photo can carry as an inset.
class CameraViewDialog : public QDialog
{
    Q_OBJECT

public:
    explicit CameraViewDialog(QWidget *parent = nullptr);
    ~CameraViewDialog() override;

    Ui::CameraViewDialog *ui;
    QObject *camera; // not used by this window
    QImage resultImage; // not used by this window
    int driverId; // not used by this window

    void SetCamera(int index);
    QImage getChildImage();

signals:
    void closeView(bool open);

public slots:
    void openCamera();
    void closeCamera();
    void readFarme(QImage image);

protected:
    void closeEvent(QCloseEvent *e) override;
};

#endif // CAMERAVIEWDIALOG_H
