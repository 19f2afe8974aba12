#ifndef IMAGEMERGINGDIALOG_H
#define IMAGEMERGINGDIALOG_H

#include <QDialog>
#include <QList>
#include <QString>

QT_BEGIN_NAMESPACE
namespace Ui {
class ImageMergingDialog;
}
QT_END_NAMESPACE

// Joins the last two photos taken into one image, side by side or one above
// the other (the two sides of an identity card, say). While it is open the
// main window hands it every photo; it keeps the two newest in turn.
class ImageMergingDialog : public QDialog
{
    Q_OBJECT

public:
    explicit ImageMergingDialog(QWidget *parent = nullptr);
    ~ImageMergingDialog() override;

    Ui::ImageMergingDialog *ui;
    int index; // the slot the next photo fills: 0 first, 1 second
    QString image1_path; // full path of the first photo; empty until one came
    QString image2_path; // full path of the second photo

    void setImage(QList<QString> paths);
    void init();

signals:
    void takePhotoSignals();
    void saveImageMergingSignals(QList<QString> files, int kind);

public slots:
    void on_btnUpDown_clicked();
    void on_btnLeftRight_clicked();
    void on_btnSave_clicked();
    void on_btnPhoto_clicked();

private:
    void fixSize(int width, int height);
};

#endif // IMAGEMERGINGDIALOG_H
