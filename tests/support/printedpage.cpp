#include "printedpage.h"

#include <QFont>
#include <QFontMetricsF>
#include <QPainter>

#include <algorithm>
#include <vector>

namespace {

const double dotsPerInch = 300.0;
const double mmPerInch = 25.4;

bool isChinese(QChar c)
{
    return c.unicode() >= 0x4e00 && c.unicode() <= 0x9fff;
}

bool isLatinWordChar(QChar c)
{
    return c.unicode() < 0x80 && c.isLetterOrNumber();
}

// What is printed as one piece: a Chinese character or punctuation mark
// alone, or a run of Latin text up to the next space. `gapBefore` says
// whether a space separates it from the piece before.
struct Piece
{
    QString text;
    bool gapBefore;
};

QList<Piece> piecesOf(const QString &paragraph)
{
    QList<Piece> pieces;
    bool gap = false;
    QString latin;
    auto flush = [&]() {
        if (!latin.isEmpty()) {
            pieces.append({ latin, gap });
            gap = false;
            latin.clear();
        }
    };
    for (QChar c : paragraph) {
        if (c.isSpace()) {
            flush();
            gap = !pieces.isEmpty();
        } else if (c.unicode() < 0x80) {
            latin += c;
        } else {
            flush();
            pieces.append({ QString(c), gap });
            gap = false;
        }
    }
    flush();
    return pieces;
}

} // namespace

QStringList wordsOf(const QString &text)
{
    QStringList words;
    QString latin;
    for (QChar c : text) {
        if (isLatinWordChar(c)) {
            latin += c;
            continue;
        }
        if (!latin.isEmpty())
            words.append(latin);
        latin.clear();
        if (isChinese(c))
            words.append(QString(c));
    }
    if (!latin.isEmpty())
        words.append(latin);
    return words;
}

int wordsInOrder(const QStringList &expected, const QStringList &found)
{
    std::vector<int> row(size_t(found.size()) + 1, 0), previous(row);
    for (int i = 0; i < expected.size(); ++i) {
        std::swap(row, previous);
        row[0] = 0;
        for (int j = 0; j < found.size(); ++j)
            row[size_t(j) + 1] = expected.at(i) == found.at(j)
                    ? previous[size_t(j)] + 1
                    : std::max(previous[size_t(j) + 1], row[size_t(j)]);
    }
    return row.back();
}

PrintedPage printPage(const QStringList &paragraphs, double pointSize, bool portrait)
{
    QSize size(int(297.0 / mmPerInch * dotsPerInch), int(210.0 / mmPerInch * dotsPerInch));
    if (portrait)
        size.transpose();
    PrintedPage page;
    page.image = QImage(size, QImage::Format_RGB32);
    page.image.fill(Qt::white);

    QFont font("Noto Sans CJK SC");
    font.setPixelSize(int(pointSize / 72.0 * dotsPerInch + 0.5));
    const QFontMetricsF metrics(font);
    const double margin = 20.0 / mmPerInch * dotsPerInch;
    const double lineHeight = metrics.height() * 1.15;
    const double space = metrics.horizontalAdvance(' ');

    QPainter p(&page.image);
    p.setFont(font);
    p.setPen(Qt::black);
    p.setRenderHint(QPainter::TextAntialiasing);
    double baseline = margin + metrics.ascent();
    for (const QString &paragraph : paragraphs) {
        double x = margin;
        for (const Piece &piece : piecesOf(paragraph)) {
            const double width = metrics.horizontalAdvance(piece.text);
            double left = x + (piece.gapBefore && x > margin ? space : 0);
            if (left + width > size.width() - margin) {
                baseline += lineHeight;
                left = margin;
            }
            p.drawText(QPointF(left, baseline), piece.text);
            // The word's ink, for the Latin letters and digits or the one
            // character the piece holds.
            const QStringList words = wordsOf(piece.text);
            if (words.size() == 1) {
                const int at = piece.text.indexOf(words.first());
                const double start = left + metrics.horizontalAdvance(piece.text.left(at));
                const QRectF ink =
                        metrics.tightBoundingRect(words.first()).translated(start, baseline);
                page.words.append(
                        { words.first(),
                          QRectF(ink.left() / size.width(), ink.top() / size.height(),
                                 ink.width() / size.width(), ink.height() / size.height()) });
            } else {
                for (const QString &word : words)
                    page.words.append({ word, QRectF() });
            }
            x = left + width;
        }
        baseline += lineHeight * 1.5;
    }
    return page;
}

QImage onDesk(const QImage &sheet, const QSize &picture, double fill)
{
    QImage desk(picture, QImage::Format_RGB32);
    desk.fill(QColor(45, 45, 45));
    const QSize fitted = sheet.size().scaled(picture * fill, Qt::KeepAspectRatio);
    QPainter p(&desk);
    p.setRenderHint(QPainter::SmoothPixmapTransform);
    p.drawImage(QRect(QPoint((picture.width() - fitted.width()) / 2,
                             (picture.height() - fitted.height()) / 2),
                      fitted),
                sheet);
    return desk;
}

QStringList sampleParagraphs()
{
    return {
        QString::fromUtf8("春天的早晨，城市图书馆的阅览室里已经坐满了学生。窗外的树木刚刚发出新芽，"
                          "阳光照在长长的木桌上。管理员把新到的报纸和杂志整齐地放在书架旁边，"
                          "几位老人正在安静地读书，偶尔抬头看一看时间。"),
        QString::fromUtf8("这份会议记录说明了下个月的工作安排：第一，整理去年的档案并编写目录；"
                          "第二，检查每个部门的设备是否正常；第三，准备年度报告的初稿，"
                          "请各位同事在本周五之前提交自己的意见。"),
        "The quarterly report describes the main results of the project and the steps planned "
        "for the coming months. All members of the team are asked to read the summary carefully "
        "and to send their comments before Friday afternoon.",
        "Please keep the original documents in the archive room and make copies only when they are "
        "needed. The new scanner on the second floor can be used by every department from Monday.",
    };
}
