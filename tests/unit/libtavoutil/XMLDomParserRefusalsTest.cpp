#include <sys/stat.h>

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include "ParsedFile.h"

/// What is refused, with the reason and the place.
class XMLDomParserRefusalsTest : public QObject, private ParsedFile
{
    Q_OBJECT

private Q_SLOTS:
    void a_broken_document_is_refused_with_reason_and_place_data();
    void a_broken_document_is_refused_with_reason_and_place();
    void an_unreadable_file_is_refused_with_the_systems_text();
    void a_pipe_is_refused_at_once();
    void a_file_above_the_limit_is_refused();
    void a_gibibyte_of_text_is_refused_at_once();
    void nesting_above_the_limit_is_refused_data();
    void nesting_above_the_limit_is_refused();
    void no_file_beside_the_document_is_read();
    void a_long_name_is_shortened_in_messages();
    void a_code_of_another_outcome_has_no_message();
};

void XMLDomParserRefusalsTest::a_broken_document_is_refused_with_reason_and_place_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("line");
    QTest::addColumn<int>("column");

    const auto row = [](const char* name, const QByteArray& content, int error,
                        const QString& message, int line, int column) {
        QTest::newRow(name) << content << error << message << line << column;
    };
    const int broken = IXMLDomParser::NotWellFormed;
    row("empty file", "", broken, "no root element", 1, 1);
    row("no element", "<!-- nothing -->\n", broken, "no root element", 2, 1);
    row("other root", "\n <media/>", IXMLDomParser::UnexpectedRoot,
        "root element 'media' instead of 'sdcard' at line 2, column 2", 2, 2);
    row("root in other case", "<SDCard/>", IXMLDomParser::UnexpectedRoot,
        "root element 'SDCard' instead of 'sdcard' at line 1, column 1", 1, 1);
    row("text without element", "logs", broken, "syntax error at line 1, column 1", 1, 1);
    row("unclosed element", "<sdcard>\n  <dir size='1'>\n    <a/>\n", broken,
        "element 'dir' of line 2, column 3 is not closed", 2, 3);
    row("unclosed root", "<sdcard><a/>", broken,
        "element 'sdcard' of line 1, column 1 is not closed", 1, 1);
    row("wrong end tag", "<sdcard>\n <dir>\n </sdcard>", broken,
        "mismatched tag at line 3, column 4 where element 'dir' of line 2, column 2 is open", 3, 4);
    row("unclosed tag", "<sdcard>\n <dir size='1'", broken, "unclosed token at line 2, column 2", 2,
        2);
    row("unclosed comment", "<sdcard><!-- </sdcard>", broken, "unclosed token at line 1, column 9",
        1, 9);
    row("unclosed character data", "<sdcard><![CDATA[a</sdcard>", broken,
        "unclosed CDATA section at line 1, column 28", 1, 28);
    row("text after the root", "<sdcard/>\nmore", broken,
        "junk after document element at line 2, column 1", 2, 1);
    row("second root", "<sdcard/><sdcard/>", broken,
        "junk after document element at line 1, column 10", 1, 10);
    row("attribute without quotes", "<sdcard a=1/>", broken,
        "not well-formed (invalid token), byte 0x31 at line 1, column 11", 1, 11);
    row("attribute given twice", "<sdcard a='1' a='2'/>", broken,
        "duplicate attribute at line 1, column 15", 1, 15);
    row("lone ampersand", "<sdcard>a & b</sdcard>", broken,
        "not well-formed (invalid token), byte 0x20 at line 1, column 12", 1, 12);
    row("undefined entity", "<sdcard>a&nbsp;b</sdcard>", broken,
        "undefined entity at line 1, column 10", 1, 10);
    row("undefined entity in an attribute", "<sdcard a='&nbsp;'/>", broken,
        "undefined entity at line 1, column 1", 1, 1);
    row("NUL byte", QByteArray("<sdcard>\na\0b</sdcard>", 20), broken,
        "not well-formed (invalid token), byte 0x00 at line 2, column 2", 2, 2);
    row("NUL byte in an attribute", QByteArray("<sdcard a='\0'/>", 15), broken,
        "not well-formed (invalid token), byte 0x00 at line 1, column 12", 1, 12);
    row("NUL byte at the end", QByteArray("<sdcard/>\0", 10), broken,
        "not well-formed (invalid token), byte 0x00 at line 1, column 10", 1, 10);
    row("NUL character reference", "<sdcard>&#0;</sdcard>", broken,
        "reference to invalid character number at line 1, column 9", 1, 9);
    row("Latin-1 without a declaration", "<sdcard>\u00fc\xFC</sdcard>", broken,
        "not well-formed (invalid token), byte 0xfc at line 1, column 10", 1, 10);
    row("overlong UTF-8", "<sdcard>\xC0\xAF</sdcard>", broken,
        "not well-formed (invalid token), byte 0xc0 at line 1, column 9", 1, 9);
    row("surrogate in UTF-8", "<sdcard>\xED\xA0\x80</sdcard>", broken,
        "not well-formed (invalid token), byte 0xed at line 1, column 9", 1, 9);
    row("UTF-8 cut off by the end", "<sdcard>\xE2\x82", broken,
        "partial character at line 1, column 9", 1, 9);
    row("unknown encoding", "<?xml version='1.0' encoding='Klingon'?><sdcard/>", broken,
        "unknown encoding at line 1, column 31", 1, 31);
    row("entity bomb",
        "<!DOCTYPE sdcard [\n<!ENTITY a 'aaaaaaaaaaaaaaaa'>\n<!ENTITY b '&a;&a;&a;&a;'>\n"
        "<!ENTITY c '&b;&b;&b;&b;'>\n]>\n<sdcard>&c;</sdcard>",
        IXMLDomParser::DocumentTypeRefused,
        "document type with declarations or a reference to a file at line 1, column 18", 1, 18);
    row("attribute bomb", "<!DOCTYPE sdcard [<!ATTLIST dir a CDATA 'aaaaaaaa'>]><sdcard/>",
        IXMLDomParser::DocumentTypeRefused,
        "document type with declarations or a reference to a file at line 1, column 18", 1, 18);
    row("external document type", "<!DOCTYPE sdcard SYSTEM 'sdcard.dtd'>\n<sdcard/>",
        IXMLDomParser::DocumentTypeRefused,
        "document type with declarations or a reference to a file at line 1, column 37", 1, 37);
}

void XMLDomParserRefusalsTest::a_broken_document_is_refused_with_reason_and_place()
{
    QFETCH(QByteArray, content);
    QFETCH(int, error);
    QFETCH(QString, message);
    QFETCH(int, line);
    QFETCH(int, column);

    QVERIFY(parse(content).isEmpty());
    QCOMPARE(QString::fromUtf8(mParser.getErrorMessage(mResults.error)), message);
    QCOMPARE(mResults.error, error);
    QCOMPARE(mResults.line, line);
    QCOMPARE(mResults.column, column);
}

void XMLDomParserRefusalsTest::an_unreadable_file_is_refused_with_the_systems_text()
{
    const QByteArray missing = QFile::encodeName(mDirectory.filePath("missing.xml"));
    QVERIFY(mParser.parseFile(missing.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::UnreadableFile));
    QCOMPARE(mParser.getErrorMessage(mResults.error), "No such file or directory");

    const QByteArray directory = QFile::encodeName(mDirectory.path());
    QVERIFY(mParser.parseFile(directory.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::UnreadableFile));
    QCOMPARE(mParser.getErrorMessage(mResults.error), "not a regular file");
}

void XMLDomParserRefusalsTest::a_pipe_is_refused_at_once()
{
    const QByteArray pipe = QFile::encodeName(mDirectory.filePath("pipe"));
    QCOMPARE(mkfifo(pipe.constData(), 0600), 0);
    QVERIFY(mParser.parseFile(pipe.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mParser.getErrorMessage(mResults.error), "not a regular file");
}

void XMLDomParserRefusalsTest::a_file_above_the_limit_is_refused()
{
    const QByteArray start = "<sdcard>";
    const QByteArray end = "</sdcard>";
    const int space = static_cast<int>(IXMLDomParser::kMaxFileSize) - start.size() - end.size();
    QVERIFY(parse(start + QByteArray(space + 1, ' ') + end).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::FileTooLarge));
    QCOMPARE(mParser.getErrorMessage(mResults.error), "larger than 4194304 bytes");
}

void XMLDomParserRefusalsTest::a_gibibyte_of_text_is_refused_at_once()
{
    const QByteArray path = write("<sdcard>text");
    QVERIFY(QFile::resize(QString::fromUtf8(path), qint64{1} << 30));
    QElapsedTimer timer;
    timer.start();
    QVERIFY(mParser.parseFile(path.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::FileTooLarge));
    QVERIFY(timer.elapsed() < 1000);
}

void XMLDomParserRefusalsTest::nesting_above_the_limit_is_refused_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("one too many") << IXMLDomParser::kMaxDepth + 1;
    QTest::newRow("100000") << 100000;
    QTest::newRow("1000000") << 1000000;
}

void XMLDomParserRefusalsTest::nesting_above_the_limit_is_refused()
{
    QFETCH(int, depth);
    QVERIFY(parse("<sdcard>\n" + QByteArray("<a>").repeated(depth - 1)).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::TooDeeplyNested));
    QCOMPARE(mParser.getErrorMessage(mResults.error),
             "elements nested deeper than 2048 at line 2, column 6142");
    QCOMPARE(mResults.line, 2);
    QCOMPARE(mResults.column, 3 * (IXMLDomParser::kMaxDepth - 1) + 1);
}

void XMLDomParserRefusalsTest::no_file_beside_the_document_is_read()
{
    QFile secret(mDirectory.filePath("secret"));
    QVERIFY(secret.open(QIODevice::WriteOnly));
    secret.write("secret");
    secret.close();
    const ITCXMLNode root = parse("<!DOCTYPE sdcard [<!ENTITY a SYSTEM '" +
                                  secret.fileName().toUtf8() + "'>]><sdcard>&a;</sdcard>");
    QVERIFY(root.isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::DocumentTypeRefused));
}

void XMLDomParserRefusalsTest::a_long_name_is_shortened_in_messages()
{
    const QByteArray name = QByteArray("\u00fc").repeated(100000);
    QVERIFY(parse("<a" + name + "/>").isEmpty());
    QCOMPARE(QByteArray(mParser.getErrorMessage(mResults.error)),
             "root element 'a" + QByteArray("\u00fc").repeated(31) +
                 "...' instead of 'sdcard' at line 1, column 1");
}

void XMLDomParserRefusalsTest::a_code_of_another_outcome_has_no_message()
{
    QVERIFY(parse("<media/>").isEmpty());
    QCOMPARE(mParser.getErrorMessage(IXMLDomParser::FileTooLarge), "unknown error");
    QCOMPARE(mParser.getErrorMessage(0), "no error");
}

QTEST_APPLESS_MAIN(XMLDomParserRefusalsTest)
#include "XMLDomParserRefusalsTest.moc"
