// Takes the pictures of the program that docs/ and the README show: the
// real main window and dialogs, built as the program builds them, on a real
// (virtual) X display with virtual cameras. Run it through
// scripts/screenshots.sh, which provides both.
//
//   brivora_screenshots <output folder>
#include "cache.h"
#include "camerainfo.h"
#include "imagemergingdialog.h"
#include "imagesavepdfortiffdialog.h"
#include "mainwindowqcamera.h"
#include "qcameraview.h"
#include "settingdialog.h"
#include "startup.h"
#include "ui_mainwindowqcamera.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QPushButton>
#include <QRadioButton>
#include <QScreen>
#include <QTextCodec>
#include <QTimer>

#include <cstdio>

namespace {

void wait(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

bool waitFor(const std::function<bool()> &done, int ms)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > ms)
            return false;
        wait(50);
    }
    return true;
}

// The screen area of a window, frame included when the display has one.
bool shoot(QWidget *window, const QString &path)
{
    wait(400); // let it paint
    const QRect area = window->frameGeometry();
    const QPixmap shot = QGuiApplication::primaryScreen()->grabWindow(0, area.x(), area.y(),
                                                                      area.width(), area.height());
    const bool ok = shot.save(path);
    std::fprintf(stderr, "%s %s\n", ok ? "wrote" : "could not write", qPrintable(path));
    return ok;
}

} // namespace

int main(int argc, char *argv[])
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s <output folder>\n", argv[0]);
        return 2;
    }
    preferVideo4Linux2Capture();
    QApplication app(argc, argv);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    const QDir out(QString::fromLocal8Bit(argv[1]));

    // As start-up does, with the pictures beside the program.
    *Cache::cameras = CameraInfo::discover();
    completeRunTimeSettings(QCoreApplication::applicationDirPath() + "/..");
    if (Cache::cameras->size() < 3) {
        std::fprintf(stderr, "needs three cameras\n");
        return 1;
    }

    MainWindowQCamera w;
    w.move(0, 0);
    w.show();
    auto *ui = w.ui;
    if (!waitFor([&] { return !ui->video->isOpenTip && !ui->video->m_Image.isNull(); }, 20000)) {
        std::fprintf(stderr, "the camera never showed a picture\n");
        return 1;
    }
    bool ok = true;

    // Colour with one sheet outlined; three photos in the strip.
    ui->rb_correction_11->click();
    for (int i = 0; i < 3; ++i) {
        ui->btnShooting->click();
        wait(700);
    }
    waitFor([&] { return !w.file_paths.value(2).isEmpty(); }, 10000);
    wait(500);
    ok &= shoot(&w, out.filePath("main-colour.png"));

    // Black and white, with the second camera's picture in a picture.
    ui->rb_Shooting_12->click();
    ui->btnSecCam1Con_2->click();
    wait(2500);
    ok &= shoot(&w, out.filePath("main-black-and-white.png"));
    ui->btnSecCam1Con_2->click();
    ui->rb_Shooting_10->click();
    ui->rb_correction_10->click();

    // The settings dialog, filled from the settings.
    ui->btnSetting_2->click();
    w.settingsDialog->move(w.x() + 120, w.y() + 10);
    ok &= shoot(w.settingsDialog, out.filePath("settings.png"));
    w.settingsDialog->close();

    // The joining dialog with two new photos.
    ui->pushButton->click();
    w.imageMerging->move(w.x() + 60, w.y() + 120);
    for (int i = 0; i < 2; ++i) {
        ui->btnShooting->click();
        wait(900);
    }
    waitFor([&] { return !w.imageMerging->image2_path.isEmpty(); }, 10000);
    ok &= shoot(w.imageMerging, out.filePath("merging.png"));
    w.imageMerging->close();

    // The PDF/TIFF dialog collecting three photos.
    ui->btnSavePdfTiff->click();
    w.imageSavePDFOrTiff->move(w.x() + 60, w.y() + 120);
    for (int i = 0; i < 3; ++i) {
        ui->btnShooting->click();
        wait(900);
    }
    waitFor([&] { return w.imageSavePDFOrTiff->image_list.size() >= 3; }, 10000);
    ok &= shoot(w.imageSavePDFOrTiff, out.filePath("pdf-tiff.png"));
    w.imageSavePDFOrTiff->close();

    return ok ? 0 : 1;
}
