#ifndef SETTINGDIALOG_H
#define SETTINGDIALOG_H

#include <QDialog>

class QButtonGroup;

QT_BEGIN_NAMESPACE
namespace Ui {
class SettingDialog;
}
QT_END_NAMESPACE

// The settings window. Its controls show the settings record as it was when
// init() last ran; an edit reaches the record and "system.ini" only through
// the save button (or, for the factory values, the defaults button).
class SettingDialog : public QDialog
{
    Q_OBJECT

public:
    explicit SettingDialog(QWidget *parent = nullptr);
    ~SettingDialog() override;

    Ui::SettingDialog *ui;
    QButtonGroup *saveButtonGroup; // save_type: file name (0) or time (1)
    QButtonGroup *watermakeButtonGroup; // watermark: own text (0) or time (1)

    // Loads every control from the settings record and the current camera.
    void init();

signals:
    void videSettingSignal();
    void reConfigVideoSettingSignal();

public slots:
    void customButtonsClicked(int id);

    void on_btnVideoSetting_clicked();
    void on_btnDefaultSetting_clicked();
    void on_saveSetting_clicked();
    void on_imageQualityBox_valueChanged(int value);
    void on_watermark_transparency_box_valueChanged(int value);
    void on_watermark_x_box_valueChanged(int value);
    void on_watermark_y_box_valueChanged(int value);
    void on_btnColorSelect_clicked();
    void on_btnFontSelect_clicked();
    void on_painting_percentage_box_valueChanged(int value);

private:
    void fillChoiceLists();
    void showExtensionSettings();
    void loadAudioInputs(const QString &saved);
    void setSampleColor(const QColor &color);
};

#endif // SETTINGDIALOG_H
