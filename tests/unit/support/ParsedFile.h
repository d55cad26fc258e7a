#pragma once

#include <QByteArray>
#include <QFile>
#include <QTemporaryDir>

#include <tavoutil/XMLDomParser.h>

/// Stands in for a configuration file: a file with a document, and its parser.
class ParsedFile
{
protected:
    /// @return the file's name
    QByteArray write(const QByteArray& content)
    {
        QFile file(mDirectory.filePath("test.xml"));
        if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
            qFatal("cannot write %s", qPrintable(file.fileName()));
        }
        return file.fileName().toUtf8();
    }

    ITCXMLNode parse(const QByteArray& content)
    {
        return mParser.parseFile(write(content).constData(), "sdcard", mResults);
    }

    QTemporaryDir mDirectory;
    IXMLDomParser mParser;
    ITCXMLResults mResults;
};
