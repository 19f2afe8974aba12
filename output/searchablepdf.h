#ifndef SEARCHABLEPDF_H
#define SEARCHABLEPDF_H

#include <QList>
#include <QString>

#include <functional>

// The searchable PDF: the photo PDF (writePhotoPdf, pixel for pixel the
// same pages) with an invisible text layer over each page, recognised from
// the photo in Chinese and English, so that the text can be found, selected
// and copied where it was photographed.

// The languages the text is recognised in.
extern const char *const textLanguages;

// Whether the recognition data (both languages and the text layer's font)
// can be loaded.
bool textRecognitionAvailable();

enum class TextLayerResult {
    Added, // every readable photo got its text layer
    DataMissing, // no recognition data: the PDF was written without text
};

// Writes the photos into fileName as writePhotoPdf does, each page with its
// text layer. Pages are recognised in parallel by up to `workers` threads;
// pageDone is called (from any of them, one call at a time) with the number
// of pages done so far. Blocks until the file is written; call it off the
// GUI thread. A file that cannot be written stays unwritten, silently, like
// every other file the program writes.
TextLayerResult writeSearchablePdf(const QString &fileName, const QList<QString> &pages,
                                   int workers, const std::function<void(int)> &pageDone = {});

#endif // SEARCHABLEPDF_H
