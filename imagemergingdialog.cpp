#include "imagemergingdialog.h"
#include "ui_imagemergingdialog.h"

#include "cache.h"
#include "modecodes.h"
#include "output/photooutput.h"

#include <QBoxLayout>
#include <QFile>
#include <QImage>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>

ImageMergingDialog::ImageMergingDialog(QWidget *parent)
    : QDialog(parent), ui(new Ui::ImageMergingDialog), index(0)
{
    ui->setupUi(this);
    setWindowFlags(windowFlags() & ~Qt::WindowContextHelpButtonHint);
}

ImageMergingDialog::~ImageMergingDialog()
{
    delete ui;
}

void ImageMergingDialog::setImage(QList<QString> paths)
{
    for (const QString &path : paths) {
        if (index > 1)
            index = 0;

        // Width from the first box and height from the second: both boxes
        // have the same size, so either gives the preview's shape.
        QPixmap pixmap(path);
        if (!pixmap.isNull())
            pixmap = pixmap.scaled(ui->imagebox1->width(), ui->imagebox2->height(),
                                   Qt::IgnoreAspectRatio, Qt::SmoothTransformation);

        if (index == 0) {
            image1_path = path;
            ui->imagebox1->setPixmap(pixmap);
        } else {
            image2_path = path;
            ui->imagebox2->setPixmap(pixmap);
        }
        ++index;
    }
}

// Only the previews go: the paths stay, so photos taken before the dialog
// was closed can still be joined after it is reopened.
void ImageMergingDialog::init()
{
    ui->imagebox1->setText("图像1");
    ui->imagebox2->setText("图像2");
}

void ImageMergingDialog::fixSize(int width, int height)
{
    // The limits first: a size fixed by the other arrangement would
    // otherwise clamp the new geometry.
    setMinimumSize(width, height);
    setMaximumSize(width, height);
    setGeometry(geometry().x(), geometry().y(), width, height);
    updateGeometry();
    repaint();
}

void ImageMergingDialog::on_btnUpDown_clicked()
{
    ui->layout_center->setDirection(QBoxLayout::TopToBottom);
    fixSize(376, 544);
}

void ImageMergingDialog::on_btnLeftRight_clicked()
{
    ui->layout_center->setDirection(QBoxLayout::LeftToRight);
    fixSize(644, 276);
}

void ImageMergingDialog::on_btnPhoto_clicked()
{
    emit takePhotoSignals();
}

void ImageMergingDialog::on_btnSave_clicked()
{
    if (!QFile::exists(image1_path)) {
        QMessageBox::warning(this, "警告", "没有图像1", QMessageBox::Ok);
        return;
    }
    if (!QFile::exists(image2_path)) {
        QMessageBox::warning(this, "警告", "没有图像2", QMessageBox::Ok);
        return;
    }

    // Full resolution: the previews are only a picture of the choice.
    const QImage first(image1_path);
    const QImage second(image2_path);

    // The layout's direction is the one record of the chosen arrangement.
    const bool sideBySide = ui->layout_center->direction() == QBoxLayout::LeftToRight;
    QSize size;
    QPoint secondAt;
    if (sideBySide) {
        size = QSize(first.width() + second.width(), qMax(first.height(), second.height()));
        secondAt = QPoint(first.width(), 0);
    } else {
        size = QSize(qMax(first.width(), second.width()), first.height() + second.height());
        secondAt = QPoint(0, first.height());
    }

    // Whatever neither photo covers stays transparent white.
    QImage canvas(size, QImage::Format_ARGB32);
    canvas.fill(qRgba(255, 255, 255, 0));
    if (!canvas.isNull()) {
        QPainter painter(&canvas);
        painter.setRenderHint(QPainter::Antialiasing, true);
        painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
        painter.drawImage(QRect(QPoint(0, 0), first.size()), first);
        painter.drawImage(QRect(secondAt, second.size()), second);
    }

    const Config *config = Cache::config;
    const QString fileName = nextOutputFileName(config->image_codec);
    canvas.save(fileName, config->image_codec.toUtf8().constData(), config->image_quality);

    emit saveImageMergingSignals(QList<QString>() << fileName, ResultKind::FromDialog);
    close();
}
