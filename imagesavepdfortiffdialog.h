#ifndef IMAGESAVEPDFORTIFFDIALOG_H
#define IMAGESAVEPDFORTIFFDIALOG_H

#include <QDialog>
#include <QList>
#include <QString>

class QLabel;
class QProgressDialog;

QT_BEGIN_NAMESPACE
namespace Ui {
class ImageSavePDFOrTiffDialog;
}
QT_END_NAMESPACE

// Collects the photos taken while it is open as a row of thumbnails and
// saves all of them, in the order taken, as one PDF (a photo per A4 page) or
// one multi-page TIFF.
class ImageSavePDFOrTiffDialog : public QDialog
{
    Q_OBJECT

public:
    explicit ImageSavePDFOrTiffDialog(QWidget *parent = nullptr);
    ~ImageSavePDFOrTiffDialog() override;

    Ui::ImageSavePDFOrTiffDialog *ui;
    int index; // number of the next thumbnail, from 1
    QList<QString> image_list; // what a save writes, in arrival order

    void setImage(QList<QString> paths);
    void init();

signals:
    void takePhotoSignals();
    void saveImageMergingSignals(QList<QString> files, int kind);

public slots:
    void on_btnPhoto_clicked();
    void on_btnClose_clicked();
    void on_btnSavePDF_clicked();
    void on_btnSaveTiff_clicked();
    void on_btnDel_clicked();

protected:
    void showEvent(QShowEvent *event) override;

private:
    QLabel *thumbnail(int number) const;
    void removeThumbnail(QLabel *label);
    QProgressDialog *startProgress(int pages, const QString &text, bool slow);
    using Writer = void (ImageSavePDFOrTiffDialog::*)(const QString &, const QList<QString> &,
                                                      QProgressDialog *);
    void save(const QString &format, const QString &kindName, Writer write, bool slow = false);
    void writeSearchablePdf(const QString &fileName, const QList<QString> &pages,
                            QProgressDialog *progress);
    void writePdf(const QString &fileName, const QList<QString> &pages, QProgressDialog *progress);
    void writeTiff(const QString &fileName, const QList<QString> &pages, QProgressDialog *progress);

    bool saving; // a save is writing; refuses a second one meanwhile
};

#endif // IMAGESAVEPDFORTIFFDIALOG_H
