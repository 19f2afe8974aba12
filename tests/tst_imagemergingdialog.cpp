// Joining two photos: which photos the dialog holds, the preview arrangement,
// the joined picture (read back pixel by pixel), its name and what the main
// window is told.
#include "cache.h"
#include "imagemergingdialog.h"
#include "outputfiles.h"
#include "testsupport.h"
#include "widgetparts.h"

#include <QtTest>

#include <QApplication>
#include <QBoxLayout>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImage>
#include <QImageReader>
#include <QLabel>
#include <QPixmap>
#include <QPushButton>
#include <QSettings>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

namespace {

const QRgb transparentWhite = qRgba(255, 255, 255, 0);

QString argb(QRgb c)
{
    return QString("(%1,%2,%3,%4)").arg(qAlpha(c)).arg(qRed(c)).arg(qGreen(c)).arg(qBlue(c));
}

// Every pixel of rect in img is exactly colour; otherwise the first that is not.
QString allPixels(const QImage &img, const QRect &rect, QRgb colour)
{
    for (int y = rect.top(); y <= rect.bottom(); ++y)
        for (int x = rect.left(); x <= rect.right(); ++x)
            if (img.pixel(x, y) != colour)
                return QString("(%1,%2) is %3, not %4")
                        .arg(x)
                        .arg(y)
                        .arg(argb(img.pixel(x, y)))
                        .arg(argb(colour));
    return QString();
}

} // namespace

class tst_ImageMergingDialog : public QObject, private OutputFolders
{
    Q_OBJECT

    // A PNG photo of one colour with a marker of another in its top-left
    // 4 x 4 corner, so that an unscaled placement can be told apart.
    QString photo(const QString &name, int width, int height, QRgb colour, QRgb marker)
    {
        QImage img(width, height, QImage::Format_ARGB32);
        img.fill(colour);
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                img.setPixel(x, y, marker);
        const QString path = photos + "/" + name + ".png";
        if (!img.save(path, "png"))
            qWarning() << "could not write" << path;
        return path;
    }

    // The colour a label shows in its middle.
    static QRgb shownColour(const QLabel *label)
    {
        const QImage img = label->pixmap(Qt::ReturnByValue).toImage();
        return img.isNull() ? 0 : img.pixel(img.width() / 2, img.height() / 2) | 0xff000000;
    }

private slots:
    void init() { QVERIFY(makeFresh("png")); }

    void formHasItsTitleSizeBoxesAndButtons()
    {
        ImageMergingDialog dlg(nullptr);
        QCOMPARE(dlg.windowTitle(), QString("图像合并"));
        QCOMPARE(dlg.size(), QSize(644, 276));
        QCOMPARE(dlg.index, 0);
        QVERIFY(dlg.image1_path.isEmpty());
        QVERIFY(dlg.image2_path.isEmpty());

        QCOMPARE(part<QBoxLayout>(dlg, "horizontalLayout")->spacing(), 0);
        QCOMPARE(part<QBoxLayout>(dlg, "horizontalLayout")->contentsMargins(),
                 QMargins(0, 0, 0, 0));
        QCOMPARE(part<QWidget>(dlg, "widget")->maximumSize(), QSize(600, 600));
        QCOMPARE(part<QWidget>(dlg, "widget_2")->maximumWidth(), 100);
        QCOMPARE(part<QBoxLayout>(dlg, "layout_center")->direction(), QBoxLayout::LeftToRight);
        QCOMPARE(part<QBoxLayout>(dlg, "layout_center")->parentWidget(),
                 part<QWidget>(dlg, "widget"));

        const QList<QLabel *> boxes = { part<QLabel>(dlg, "imagebox1"),
                                        part<QLabel>(dlg, "imagebox2") };
        const QStringList texts = { "图像1", "图像2" };
        for (int i = 0; i < 2; ++i) {
            QLabel *box = dlg.findChild<QLabel *>(QString("imagebox%1").arg(i + 1));
            QCOMPARE(box, boxes[i]);
            QCOMPARE(box->text(), texts[i]);
            QCOMPARE(box->maximumSize(), QSize(260, 260));
            QCOMPARE(box->styleSheet(), QString("border:1px solid gray;"));
            QVERIFY(box->hasScaledContents());
            QVERIFY(part<QBoxLayout>(dlg, "layout_center")->indexOf(box) >= 0);
        }

        const QList<QPair<QString, QString>> buttons = { { "btnSave", "合并图像" },
                                                         { "btnLeftRight", "左右预览" },
                                                         { "btnUpDown", "上下预览" },
                                                         { "btnPhoto", "拍照" } };
        for (const auto &b : buttons) {
            auto *button = dlg.findChild<QPushButton *>(b.first);
            QVERIFY2(button, qPrintable(b.first));
            QCOMPARE(button->text(), b.second);
            QCOMPARE(button->parentWidget(), part<QWidget>(dlg, "widget_2"));
        }
    }

    void photoButtonAsksForAPhoto()
    {
        ImageMergingDialog dlg(nullptr);
        QSignalSpy spy(&dlg, SIGNAL(takePhotoSignals()));
        part<QPushButton>(dlg, "btnPhoto")->click();
        QCOMPARE(spy.count(), 1);
        QCOMPARE(filesIn(folder), QStringList());
    }

    void arrangementButtonsFixTheWindowSizeAtItsPlace()
    {
        ImageMergingDialog dlg(nullptr);
        dlg.show();
        dlg.move(120, 90);
        QVERIFY(QTest::qWaitForWindowExposed(&dlg));
        const QPoint at = dlg.geometry().topLeft();

        part<QPushButton>(dlg, "btnUpDown")->click();
        QCOMPARE(part<QBoxLayout>(dlg, "layout_center")->direction(), QBoxLayout::TopToBottom);
        QCOMPARE(dlg.size(), QSize(376, 544));
        QCOMPARE(dlg.minimumSize(), QSize(376, 544));
        QCOMPARE(dlg.maximumSize(), QSize(376, 544));
        QCOMPARE(dlg.geometry().topLeft(), at);

        part<QPushButton>(dlg, "btnLeftRight")->click();
        QCOMPARE(part<QBoxLayout>(dlg, "layout_center")->direction(), QBoxLayout::LeftToRight);
        QCOMPARE(dlg.size(), QSize(644, 276));
        QCOMPARE(dlg.minimumSize(), QSize(644, 276));
        QCOMPARE(dlg.maximumSize(), QSize(644, 276));
        QCOMPARE(dlg.geometry().topLeft(), at);
    }

    void photosFillTheSlotsInTurnScaledToTheBoxes()
    {
        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 300, 200, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 300, 200, qRgb(0, 255, 0), qRgb(0, 255, 0));
        dlg.setImage({ p1 });
        QCOMPARE(dlg.index, 1);
        QCOMPARE(dlg.image1_path, p1);
        QVERIFY(dlg.image2_path.isEmpty());
        const QPixmap shown = part<QLabel>(dlg, "imagebox1")->pixmap(Qt::ReturnByValue);
        QCOMPARE(shown.size(),
                 QSize(part<QLabel>(dlg, "imagebox1")->width(),
                       part<QLabel>(dlg, "imagebox2")->height()));
        QCOMPARE(shownColour(part<QLabel>(dlg, "imagebox1")), qRgb(255, 0, 0));
        QVERIFY(part<QLabel>(dlg, "imagebox2")->pixmap(Qt::ReturnByValue).isNull());

        dlg.setImage({ p2 });
        QCOMPARE(dlg.index, 2);
        QCOMPARE(dlg.image2_path, p2);
        QCOMPARE(shownColour(part<QLabel>(dlg, "imagebox2")), qRgb(0, 255, 0));
    }

    void threePhotosLeavePhotoThreeInTheFirstSlot()
    {
        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 120, 90, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 120, 90, qRgb(0, 255, 0), qRgb(0, 255, 0));
        const QString p3 = photo("three", 120, 90, qRgb(0, 0, 255), qRgb(0, 0, 255));
        dlg.setImage({ p1 });
        dlg.setImage({ p2 });
        dlg.setImage({ p3 });
        QCOMPARE(dlg.image1_path, p3);
        QCOMPARE(dlg.image2_path, p2);
        QCOMPARE(dlg.index, 1);
        QCOMPARE(shownColour(part<QLabel>(dlg, "imagebox1")), qRgb(0, 0, 255));
        QCOMPARE(shownColour(part<QLabel>(dlg, "imagebox2")), qRgb(0, 255, 0));
    }

    void oneCaptureWithSeveralFilesFillsSeveralSlots()
    {
        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 120, 90, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 120, 90, qRgb(0, 255, 0), qRgb(0, 255, 0));
        const QString p3 = photo("three", 120, 90, qRgb(0, 0, 255), qRgb(0, 0, 255));
        dlg.setImage({ p1, p2, p3 });
        QCOMPARE(dlg.image1_path, p3);
        QCOMPARE(dlg.image2_path, p2);
        QCOMPARE(dlg.index, 1);
    }

    void noPhotoWarnsNoImage1AndWritesNothing()
    {
        ImageMergingDialog dlg(nullptr);
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(answerer.boxes.size(), 1);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("没有图像1"));
        QCOMPARE(saved.count(), 0);
        QCOMPARE(filesIn(folder), QStringList());
        QCOMPARE(Cache::config->save_number, 1);
    }

    void onePhotoOnlyWarnsNoImage2AndWritesNothing()
    {
        ImageMergingDialog dlg(nullptr);
        dlg.setImage({ photo("one", 100, 80, qRgb(255, 0, 0), qRgb(255, 0, 0)) });
        dlg.show();
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(answerer.boxes.size(), 1);
        QCOMPARE(answerer.boxes[0].title, QString("警告"));
        QCOMPARE(answerer.boxes[0].text, QString("没有图像2"));
        QCOMPARE(saved.count(), 0);
        QCOMPARE(filesIn(folder), QStringList());
        QCOMPARE(Cache::config->save_number, 1);
        QVERIFY(dlg.isVisible());
    }

    void deletedPhotoWarnsAsMissing()
    {
        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 100, 80, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 100, 80, qRgb(0, 255, 0), qRgb(0, 255, 0));
        dlg.setImage({ p1, p2 });
        QVERIFY(QFile::remove(p1));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(answerer.boxes.size(), 1);
        QCOMPARE(answerer.boxes[0].text, QString("没有图像1"));
        QCOMPARE(filesIn(folder), QStringList());
    }

    void sideBySideJoinPlacesTheSecondAtTheFirstsWidthOverTransparentWhite()
    {
        ImageMergingDialog dlg(nullptr);
        const QRgb red = qRgb(200, 30, 30), blue = qRgb(30, 30, 200), yellow = qRgb(250, 250, 0),
                   green = qRgb(0, 160, 0);
        dlg.setImage({ photo("first", 1000, 800, red, yellow) });
        dlg.setImage({ photo("second", 600, 900, blue, green) });
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnLeftRight")->click();
        part<QPushButton>(dlg, "btnSave")->click();

        QCOMPARE(saved.count(), 1);
        const QString name = folder + "/IMG_1.png";
        QCOMPARE(saved[0][0].value<QList<QString>>(), QList<QString>({ name }));
        QCOMPARE(saved[0][1].toInt(), 1);

        const QImage img = readBack(name);
        QCOMPARE(img.size(), QSize(1600, 900));
        QVERIFY(img.hasAlphaChannel());
        // The first photo unscaled at the origin.
        QCOMPARE(img.pixel(0, 0), yellow);
        QCOMPARE(img.pixel(4, 4), red);
        QCOMPARE(img.pixel(999, 799), red);
        // The second photo's marked corner exactly at (1000, 0), unscaled.
        QCOMPARE(img.pixel(1000, 0), green);
        QCOMPARE(img.pixel(1003, 3), green);
        QCOMPARE(img.pixel(1004, 4), blue);
        QCOMPARE(img.pixel(999, 0), red);
        QCOMPARE(img.pixel(1599, 899), blue);
        // Below the first photo: transparent white, all of it.
        const QString strip = allPixels(img, QRect(0, 800, 1000, 100), transparentWhite);
        QVERIFY2(strip.isEmpty(), qPrintable(strip));
    }

    void oneAboveTheOtherJoinPlacesTheSecondBelowTheFirst()
    {
        ImageMergingDialog dlg(nullptr);
        const QRgb red = qRgb(200, 30, 30), blue = qRgb(30, 30, 200), yellow = qRgb(250, 250, 0),
                   green = qRgb(0, 160, 0);
        dlg.setImage(
                { photo("first", 1000, 800, red, yellow), photo("second", 600, 900, blue, green) });
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnUpDown")->click();
        part<QPushButton>(dlg, "btnSave")->click();

        QCOMPARE(saved.count(), 1);
        const QImage img = readBack(folder + "/IMG_1.png");
        QCOMPARE(img.size(), QSize(1000, 1700));
        QCOMPARE(img.pixel(0, 0), yellow);
        QCOMPARE(img.pixel(999, 799), red);
        QCOMPARE(img.pixel(0, 800), green);
        QCOMPARE(img.pixel(4, 804), blue);
        QCOMPARE(img.pixel(0, 799), red);
        QCOMPARE(img.pixel(599, 1699), blue);
        const QString strip = allPixels(img, QRect(600, 800, 400, 900), transparentWhite);
        QVERIFY2(strip.isEmpty(), qPrintable(strip));
    }

    void numberedNameTakesTheNextPhotoNumber()
    {
        Config *c = Cache::config;
        c->save_type = 0;
        c->save_prefix = "IMG";
        c->save_number = 7;
        c->image_codec = "jpg";
        QSettings ini("system.ini", QSettings::IniFormat);
        const QVariant numberOnDisk = ini.value("save/number");

        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 200, 100, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 100, 150, qRgb(0, 0, 255), qRgb(0, 0, 255));
        dlg.setImage({ p1, p2 });
        dlg.show();
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();

        QCOMPARE(answerer.boxes.size(), 0);
        QCOMPARE(saved.count(), 1);
        QCOMPARE(saved[0][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_7.jpg" }));
        QCOMPARE(saved[0][1].toInt(), 1);
        QCOMPARE(filesIn(folder), QStringList({ "IMG_7.jpg" }));
        QCOMPARE(QImageReader(folder + "/IMG_7.jpg").format(), QByteArray("jpeg"));
        QCOMPARE(readBack(folder + "/IMG_7.jpg").size(), QSize(300, 150));
        QCOMPARE(c->save_number, 8);
        // Counted in memory only.
        ini.sync();
        QCOMPARE(ini.value("save/number"), numberOnDisk);
        QVERIFY(!dlg.isVisible());
        // The photos themselves stay as they were.
        QVERIFY(QFileInfo::exists(p1));
        QVERIFY(QFileInfo::exists(p2));
        QCOMPARE(readBack(p1).size(), QSize(200, 100));
    }

    void namedByTimeWhenNotNumbered()
    {
        Cache::config->save_type = 1;
        Cache::config->save_number = 5;
        ImageMergingDialog dlg(nullptr);
        dlg.setImage({ photo("one", 40, 30, qRgb(255, 0, 0), qRgb(255, 0, 0)),
                       photo("two", 40, 30, qRgb(0, 0, 255), qRgb(0, 0, 255)) });
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        const QDateTime before = QDateTime::currentDateTime();
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(saved.count(), 1);
        const QString name = saved[0][0].value<QList<QString>>().value(0);
        const QFileInfo info(name);
        QCOMPARE(info.path(), folder);
        QCOMPARE(info.suffix(), QString("png"));
        const QDateTime stamped =
                QDateTime::fromString(info.completeBaseName(), "yyyy_MM_dd HH_mm_ss.zzz");
        QVERIFY2(stamped.isValid(), qPrintable(info.fileName()));
        QVERIFY(qAbs(stamped.msecsTo(before)) < 5000);
        QVERIFY(info.exists());
        QCOMPARE(Cache::config->save_number, 5);
    }

    void reopeningShowsTheTextsButStillJoinsTheEarlierPhotos()
    {
        ImageMergingDialog dlg(nullptr);
        const QString p1 = photo("one", 50, 40, qRgb(255, 0, 0), qRgb(255, 0, 0));
        const QString p2 = photo("two", 30, 60, qRgb(0, 0, 255), qRgb(0, 0, 255));
        dlg.setImage({ p1, p2 });
        dlg.show();
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(saved.count(), 1);
        QVERIFY(!dlg.isVisible());

        // What the main window does on opening the dialog again.
        dlg.init();
        dlg.show();
        QCOMPARE(part<QLabel>(dlg, "imagebox1")->text(), QString("图像1"));
        QCOMPARE(part<QLabel>(dlg, "imagebox2")->text(), QString("图像2"));
        QVERIFY(part<QLabel>(dlg, "imagebox1")->pixmap(Qt::ReturnByValue).isNull());
        QVERIFY(part<QLabel>(dlg, "imagebox2")->pixmap(Qt::ReturnByValue).isNull());
        QCOMPARE(dlg.image1_path, p1);
        QCOMPARE(dlg.image2_path, p2);
        QCOMPARE(dlg.index, 2);

        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(answerer.boxes.size(), 0);
        QCOMPARE(saved.count(), 2);
        QCOMPARE(saved[1][0].value<QList<QString>>(), QList<QString>({ folder + "/IMG_2.png" }));
        const QImage again = readBack(folder + "/IMG_2.png");
        QCOMPARE(again.size(), QSize(80, 60));
        QCOMPARE(again.pixel(0, 0), qRgb(255, 0, 0));
        QCOMPARE(again.pixel(50, 0), qRgb(0, 0, 255));
        QCOMPARE(filesIn(folder), QStringList({ "IMG_1.png", "IMG_2.png" }));
    }

    void undecodableFileJoinsAsAnEmptyPicture()
    {
        ImageMergingDialog dlg(nullptr);
        const QString broken = photos + "/broken.png";
        QFile file(broken);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("not a picture");
        file.close();
        dlg.setImage({ broken, photo("two", 70, 50, qRgb(0, 0, 255), qRgb(0, 0, 255)) });
        QSignalSpy saved(&dlg, SIGNAL(saveImageMergingSignals(QList<QString>, int)));
        ModalAnswerer answerer;
        part<QPushButton>(dlg, "btnSave")->click();
        QCOMPARE(answerer.boxes.size(), 0);
        QCOMPARE(saved.count(), 1);
        const QImage img = readBack(folder + "/IMG_1.png");
        QCOMPARE(img.size(), QSize(70, 50));
        QCOMPARE(img.pixel(69, 49), qRgb(0, 0, 255));
    }
};

QTEST_MAIN(tst_ImageMergingDialog)
#include "tst_imagemergingdialog.moc"
