#ifndef PRINTEDPAGE_H
#define PRINTEDPAGE_H

#include <QImage>
#include <QList>
#include <QRectF>
#include <QSize>
#include <QString>
#include <QStringList>

// Pages of known text for the text recognition tests: printed by us in
// Debian's Noto Sans CJK onto a landscape A4 sheet, with the place of every
// word remembered, and laid on a dark desk as a camera would see it.

// A word as the recognition tests count them: each Chinese character on its
// own, or a run of Latin letters and digits. Punctuation is no word.
struct PrintedWord
{
    QString text;
    QRectF box; // where its ink lies, in fractions of the page's width and height
};

struct PrintedPage
{
    QImage image; // A4 at 300 dots per inch
    QList<PrintedWord> words; // in reading order
};

// The paragraphs printed in body text of pointSize points, line by line
// from the top left inside margins of 20 mm, on a landscape (or portrait)
// sheet.
PrintedPage printPage(const QStringList &paragraphs, double pointSize, bool portrait = false);

// The sheet centred on a dark desk picture of the given size, as large as
// fits `fill` of the picture's width and height.
QImage onDesk(const QImage &sheet, const QSize &picture, double fill);

// The words of some text as counted above, in order.
QStringList wordsOf(const QString &text);

// How many of `expected` appear in `found` in the same order (the longest
// common subsequence).
int wordsInOrder(const QStringList &expected, const QStringList &found);

// Two paragraphs of Chinese and two of English made up for the tests.
QStringList sampleParagraphs();

#endif // PRINTEDPAGE_H
