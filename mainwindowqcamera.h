#ifndef MAINWINDOWQCAMERA_H
#define MAINWINDOWQCAMERA_H

#include <QMainWindow>

QT_BEGIN_NAMESPACE
namespace Ui {
class MainWindowQCamera;
}
QT_END_NAMESPACE

// The operator's main window. For now it shows the live picture of the
// chosen camera and what start-up found: the cameras, the camera the settings
// choose and the sizes they lead to.
class MainWindowQCamera : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindowQCamera(QWidget *parent = nullptr);
    ~MainWindowQCamera() override;

    Ui::MainWindowQCamera *ui;

private:
    void showCameras();
    void showChosenSettings();
};

#endif // MAINWINDOWQCAMERA_H
