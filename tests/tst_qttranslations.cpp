// Qt's own texts (standard buttons, the colour dialog) in Simplified Chinese
// whatever the desktop's language; the test runs with English asked for.
#include "qttranslations.h"

#include <QApplication>
#include <QColorDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QtTest>

namespace {

QString buttonText(QMessageBox &box, QMessageBox::StandardButton which)
{
    QAbstractButton *button = box.button(which);
    return button ? button->text() : QString();
}

} // namespace

class tst_QtTranslations : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(qgetenv("LANGUAGE").startsWith("en"));
        // Without the catalogue Qt speaks English here: the checks below
        // see the catalogue's work, not a default.
        QMessageBox box(QMessageBox::Warning, "警告", "text", QMessageBox::Ok);
        QCOMPARE(buttonText(box, QMessageBox::Ok), QString("OK"));
        QVERIFY(installQtChineseTranslations(*qApp));
    }

    void messageBoxButtonsSpeakChinese()
    {
        QMessageBox box(QMessageBox::Warning, QStringLiteral("警告"),
                        QStringLiteral("未检测到设备，请检查设备是否已经连接！"),
                        QMessageBox::Ok | QMessageBox::Cancel);
        QCOMPARE(buttonText(box, QMessageBox::Ok), QStringLiteral("确定"));
        QCOMPARE(buttonText(box, QMessageBox::Cancel), QStringLiteral("取消"));
    }

    void dialogButtonBoxSpeaksChinese()
    {
        QDialogButtonBox buttons(QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
        QCOMPARE(buttons.button(QDialogButtonBox::Ok)->text(), QStringLiteral("确定"));
        QCOMPARE(buttons.button(QDialogButtonBox::Cancel)->text(), QStringLiteral("取消"));
    }

    void colourDialogSpeaksChinese()
    {
        QColorDialog dialog;
        dialog.setOption(QColorDialog::DontUseNativeDialog);
        QStringList labels;
        for (QLabel *label : dialog.findChildren<QLabel *>())
            labels << label->text();
        QVERIFY2(labels.contains(QStringLiteral("基本颜色(&B)")), qPrintable(labels.join(" | ")));
        for (const QString &text : labels)
            QVERIFY2(!text.contains("Basic colors"), qPrintable(text));
    }
};

QTEST_MAIN(tst_QtTranslations)
#include "tst_qttranslations.moc"
