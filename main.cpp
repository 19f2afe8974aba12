#include "cache.h"
#include "camerainfo.h"
#include "mainwindowqcamera.h"
#include "qttranslations.h"
#include "startup.h"

#include <QApplication>
#include <QDebug>
#include <QFont>
#include <QMessageBox>
#include <QPixmap>
#include <QSplashScreen>
#include <QTextCodec>

int main(int argc, char *argv[])
{
    // Before any camera is opened: OpenCV reads its back-end order once.
    preferVideo4Linux2Capture();

    QApplication a(argc, argv);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    installQtChineseTranslations(a);

    qDebug() << "this is brivora program";
    qDebug() << QCoreApplication::applicationDirPath();

    *Cache::cameras = CameraInfo::discover();

    completeRunTimeSettings(QCoreApplication::applicationDirPath());

    if (Cache::cameras->isEmpty()) {
        if (QMessageBox::warning(nullptr, QStringLiteral("警告"),
                                 QStringLiteral("未检测到设备，请检查设备是否已经连接！"),
                                 QMessageBox::Ok)
            == QMessageBox::Ok) {
            QCoreApplication::quit();
        }
        return -1;
    }

    QSplashScreen *splash = new QSplashScreen(QPixmap());
    splash->setPixmap(QPixmap(resourcePath("/Resources/brivora.png")));
    splash->show();

    splash->setFont(QFont("Helvetica", 9));
    // A pixel-sized copy of the splash font is made but never applied, so
    // the splash keeps its 9-point font.
    QFont splashFont = splash->font();
    splashFont.setPixelSize(9);

    QCoreApplication::processEvents();

    MainWindowQCamera w;
    w.show();
    splash->finish(&w);
    delete splash;

    return a.exec();
}
