#include <tavoutil/XMLDomParser.h>

#include <sys/stat.h>

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

class XMLDomParserTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void a_document_is_read_as_a_tree();
    void children_are_elements_only_and_in_document_order();
    void a_child_outside_the_range_is_the_empty_node();
    void the_empty_node_has_nothing();
    void text_is_joined_and_loses_the_white_space_around_it_data();
    void text_is_joined_and_loses_the_white_space_around_it();
    void attributes_are_found_by_name();
    void names_texts_and_attributes_are_utf8();
    void other_encodings_are_converted_to_utf8();
    void elements_know_their_line_and_column();
    void a_node_outlives_its_parser_and_its_root();
    void a_plain_document_type_is_accepted();
    void a_file_name_is_utf8_whatever_the_locale();

    void a_broken_document_is_refused_with_reason_and_place_data();
    void a_broken_document_is_refused_with_reason_and_place();
    void an_unreadable_file_is_refused_with_the_systems_text();
    void a_pipe_is_refused_at_once();
    void a_file_above_the_limit_is_refused();
    void a_gibibyte_of_text_is_refused_at_once();
    void text_up_to_the_limit_is_read();
    void nesting_up_to_the_limit_is_read();
    void nesting_above_the_limit_is_refused_data();
    void nesting_above_the_limit_is_refused();
    void no_file_beside_the_document_is_read();
    void a_long_name_is_shortened_in_messages();
    void a_parser_starts_anew_with_each_file();
    void a_code_of_another_outcome_has_no_message();
    void time_grows_with_size_only_data();
    void time_grows_with_size_only();

private:
    QByteArray write(const QByteArray& content);
    ITCXMLNode parse(const QByteArray& content);

    QTemporaryDir mDirectory;
    IXMLDomParser mParser;
    ITCXMLResults mResults;
};

QByteArray XMLDomParserTest::write(const QByteArray& content)
{
    QFile file(mDirectory.filePath("test.xml"));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(file.fileName()));
    }
    return file.fileName().toUtf8();
}

ITCXMLNode XMLDomParserTest::parse(const QByteArray& content)
{
    return mParser.parseFile(write(content).constData(), "sdcard", mResults);
}

void XMLDomParserTest::a_document_is_read_as_a_tree()
{
    const ITCXMLNode root = parse("<?xml version='1.0' encoding='UTF-8'?>\n"
                                  "<sdcard mountpoint='/media/sdcard'>\n"
                                  "  <dir size='50'>logs\n"
                                  "    <symlink target='old'>current</symlink>\n"
                                  "  </dir>\n"
                                  "</sdcard>\n");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(mResults.line, 0);
    QCOMPARE(mResults.column, 0);
    QVERIFY(!root.isEmpty());
    QCOMPARE(root.getName(), "sdcard");
    QCOMPARE(root.getText(), nullptr);
    QCOMPARE(root.nChildNode(), 1);
    const ITCXMLNode directory = root.getChildNode(0);
    QCOMPARE(directory.getName(), "dir");
    QCOMPARE(directory.getText(), "logs");
    QCOMPARE(directory.nChildNode(), 1);
    const ITCXMLNode link = directory.getChildNode(0);
    QCOMPARE(link.getName(), "symlink");
    QCOMPARE(link.getText(), "current");
    QCOMPARE(link.getAttribute("target"), "old");
    QCOMPARE(link.nChildNode(), 0);
}

void XMLDomParserTest::children_are_elements_only_and_in_document_order()
{
    const ITCXMLNode root = parse("<sdcard>text<!-- comment --><a><c/><d/></a>text"
                                  "<?instruction?><b/><![CDATA[text]]><e><f/></e></sdcard>");
    QStringList names;
    for (int i = 0; i < root.nChildNode(); ++i) {
        const ITCXMLNode child = root.getChildNode(i);
        names << child.getName();
        for (int n = 0; n < child.nChildNode(); ++n) {
            names << child.getChildNode(n).getName();
        }
    }
    QCOMPARE(names, (QStringList{"a", "c", "d", "b", "e", "f"}));
}

void XMLDomParserTest::a_child_outside_the_range_is_the_empty_node()
{
    const ITCXMLNode root = parse("<sdcard><a/></sdcard>");
    QVERIFY(root.getChildNode(-1).isEmpty());
    QVERIFY(!root.getChildNode(0).isEmpty());
    QVERIFY(root.getChildNode(1).isEmpty());
    QVERIFY(root.getChildNode(0).getChildNode(0).isEmpty());
}

void XMLDomParserTest::the_empty_node_has_nothing()
{
    const ITCXMLNode node;
    QVERIFY(node.isEmpty());
    QCOMPARE(node.getName(), nullptr);
    QCOMPARE(node.getText(), nullptr);
    QCOMPARE(node.getAttribute("size"), nullptr);
    QCOMPARE(node.nChildNode(), 0);
    QVERIFY(node.getChildNode(0).isEmpty());
    QCOMPARE(node.line(), 0);
    QCOMPARE(node.column(), 0);
}

void XMLDomParserTest::text_is_joined_and_loses_the_white_space_around_it_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("text");
    QTest::newRow("indented") << QByteArray("\r\n\t logs \n") << QByteArray("logs");
    QTest::newRow("white space within") << QByteArray(" a  b ") << QByteArray("a  b");
    QTest::newRow("white space alone") << QByteArray(" \n\t\r ") << QByteArray();
    QTest::newRow("nothing") << QByteArray() << QByteArray();
    QTest::newRow("before and after a child") << QByteArray("lo<a>no</a>gs") << QByteArray("logs");
    QTest::newRow("around a comment") << QByteArray("lo<!-- no -->gs") << QByteArray("logs");
    QTest::newRow("character data section")
        << QByteArray(" <![CDATA[<a>&amp; ]]> ") << QByteArray("<a>&amp;");
    QTest::newRow("escapes") << QByteArray("&lt;&amp;&gt;&quot;&apos;&#65;&#x42;")
                             << QByteArray("<&>\"'AB");
    QTest::newRow("no-break space") << QByteArray("\u00a0") << QByteArray("\u00a0");
}

void XMLDomParserTest::text_is_joined_and_loses_the_white_space_around_it()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, text);
    const ITCXMLNode root = parse("<sdcard>" + content + "</sdcard>");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(root.getText(), text.isNull() ? nullptr : text.constData());
}

void XMLDomParserTest::attributes_are_found_by_name()
{
    const ITCXMLNode root = parse("<sdcard a='1' b=' two ' c='' d='&lt;&#10;'/>");
    QCOMPARE(root.getAttribute("a"), "1");
    QCOMPARE(root.getAttribute("b"), " two ");
    QCOMPARE(root.getAttribute("c"), "");
    QCOMPARE(root.getAttribute("d"), "<\n");
    QCOMPARE(root.getAttribute("A"), nullptr);
    QCOMPARE(root.getAttribute(""), nullptr);
}

void XMLDomParserTest::names_texts_and_attributes_are_utf8()
{
    const ITCXMLNode root = parse(
        "\xEF\xBB\xBF<sdcard><gr\u00fcn gr\u00f6\u00dfe='\u20ac'>\U0001F4BE</gr\u00fcn></sdcard>");
    QCOMPARE(mResults.error, 0);
    const ITCXMLNode child = root.getChildNode(0);
    QCOMPARE(child.getName(), "gr\u00fcn");
    QCOMPARE(child.getAttribute("gr\u00f6\u00dfe"), "\u20ac");
    QCOMPARE(child.getText(), "\U0001F4BE");
}

void XMLDomParserTest::other_encodings_are_converted_to_utf8()
{
    QCOMPARE(parse("<?xml version='1.0' encoding='ISO-8859-1'?><sdcard>gr\xFCn</sdcard>").getText(),
             "gr\u00fcn");
    const QString text = QString::fromUtf8("\ufeff<sdcard>gr\u00fcn</sdcard>");
    const QByteArray utf16(reinterpret_cast<const char*>(text.utf16()), text.size() * 2);
    QCOMPARE(parse(utf16).getText(), "gr\u00fcn");
}

void XMLDomParserTest::elements_know_their_line_and_column()
{
    const ITCXMLNode root =
        parse("<?xml version='1.0'?>\r\n<sdcard>\r\n\t\u20ac<a/><b\n/>\n<c/></sdcard>");
    QCOMPARE(root.line(), 2);
    QCOMPARE(root.column(), 1);
    QCOMPARE(root.getChildNode(0).line(), 3);
    QCOMPARE(root.getChildNode(0).column(), 3);
    QCOMPARE(root.getChildNode(1).line(), 3);
    QCOMPARE(root.getChildNode(1).column(), 7);
    QCOMPARE(root.getChildNode(2).line(), 5);
    QCOMPARE(root.getChildNode(2).column(), 1);
}

void XMLDomParserTest::a_node_outlives_its_parser_and_its_root()
{
    ITCXMLNode child;
    {
        IXMLDomParser parser;
        child = parser.parseFile(write("<sdcard><a b='c'>d</a></sdcard>"), "sdcard", mResults)
                    .getChildNode(0);
    }
    QCOMPARE(child.getName(), "a");
    QCOMPARE(child.getText(), "d");
    QCOMPARE(child.getAttribute("b"), "c");
}

void XMLDomParserTest::a_plain_document_type_is_accepted()
{
    QCOMPARE(parse("<!DOCTYPE sdcard><sdcard>a</sdcard>").getText(), "a");
}

void XMLDomParserTest::a_file_name_is_utf8_whatever_the_locale()
{
    const QByteArray name = QFile::encodeName(mDirectory.path()) + "/gr\u00fcn.xml";
    QCOMPARE(rename(write("<sdcard>a</sdcard>").constData(), name.constData()), 0);
    QCOMPARE(mParser.parseFile(name.constData(), "sdcard", mResults).getText(), "a");
}

void XMLDomParserTest::a_broken_document_is_refused_with_reason_and_place_data()
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

void XMLDomParserTest::a_broken_document_is_refused_with_reason_and_place()
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

void XMLDomParserTest::an_unreadable_file_is_refused_with_the_systems_text()
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

void XMLDomParserTest::a_pipe_is_refused_at_once()
{
    const QByteArray pipe = QFile::encodeName(mDirectory.filePath("pipe"));
    QCOMPARE(mkfifo(pipe.constData(), 0600), 0);
    QVERIFY(mParser.parseFile(pipe.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mParser.getErrorMessage(mResults.error), "not a regular file");
}

void XMLDomParserTest::a_file_above_the_limit_is_refused()
{
    const QByteArray start = "<sdcard>";
    const QByteArray end = "</sdcard>";
    const int space = static_cast<int>(IXMLDomParser::kMaxFileSize) - start.size() - end.size();
    QVERIFY(parse(start + QByteArray(space + 1, ' ') + end).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::FileTooLarge));
    QCOMPARE(mParser.getErrorMessage(mResults.error), "larger than 4194304 bytes");
}

void XMLDomParserTest::a_gibibyte_of_text_is_refused_at_once()
{
    const QByteArray path = write("<sdcard>text");
    QVERIFY(QFile::resize(QString::fromUtf8(path), qint64{1} << 30));
    QElapsedTimer timer;
    timer.start();
    QVERIFY(mParser.parseFile(path.constData(), "sdcard", mResults).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::FileTooLarge));
    QVERIFY(timer.elapsed() < 1000);
}

void XMLDomParserTest::text_up_to_the_limit_is_read()
{
    const QByteArray start = "<sdcard>";
    const QByteArray end = "</sdcard>";
    const int space = static_cast<int>(IXMLDomParser::kMaxFileSize) - start.size() - end.size();
    const QByteArray text(space, 'x');
    const ITCXMLNode root = parse(start + text + end);
    QCOMPARE(mResults.error, 0);
    QVERIFY(root.getText() == text);
}

void XMLDomParserTest::nesting_up_to_the_limit_is_read()
{
    const int inner = IXMLDomParser::kMaxDepth - 1;
    const ITCXMLNode root = parse("<sdcard>" + QByteArray("<a>").repeated(inner) + "text" +
                                  QByteArray("</a>").repeated(inner) + "</sdcard>");
    QCOMPARE(mResults.error, 0);
    ITCXMLNode node = root;
    int depth = 1;
    while (node.nChildNode() > 0) {
        node = node.getChildNode(0);
        ++depth;
    }
    QCOMPARE(depth, IXMLDomParser::kMaxDepth);
    QCOMPARE(node.getText(), "text");
}

void XMLDomParserTest::nesting_above_the_limit_is_refused_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("one too many") << IXMLDomParser::kMaxDepth + 1;
    QTest::newRow("100000") << 100000;
    QTest::newRow("1000000") << 1000000;
}

void XMLDomParserTest::nesting_above_the_limit_is_refused()
{
    QFETCH(int, depth);
    QVERIFY(parse("<sdcard>\n" + QByteArray("<a>").repeated(depth - 1)).isEmpty());
    QCOMPARE(mResults.error, static_cast<int>(IXMLDomParser::TooDeeplyNested));
    QCOMPARE(mParser.getErrorMessage(mResults.error),
             "elements nested deeper than 2048 at line 2, column 6142");
    QCOMPARE(mResults.line, 2);
    QCOMPARE(mResults.column, 3 * (IXMLDomParser::kMaxDepth - 1) + 1);
}

void XMLDomParserTest::no_file_beside_the_document_is_read()
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

void XMLDomParserTest::a_long_name_is_shortened_in_messages()
{
    const QByteArray name = QByteArray("\u00fc").repeated(100000);
    QVERIFY(parse("<a" + name + "/>").isEmpty());
    QCOMPARE(QByteArray(mParser.getErrorMessage(mResults.error)),
             "root element 'a" + QByteArray("\u00fc").repeated(31) +
                 "...' instead of 'sdcard' at line 1, column 1");
}

void XMLDomParserTest::a_parser_starts_anew_with_each_file()
{
    QVERIFY(parse("<sdcard>").isEmpty());
    QVERIFY(mResults.error != 0);
    QCOMPARE(parse("<sdcard>a</sdcard>").getText(), "a");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(mResults.line, 0);
    QCOMPARE(mParser.getErrorMessage(0), "no error");
}

void XMLDomParserTest::a_code_of_another_outcome_has_no_message()
{
    QVERIFY(parse("<media/>").isEmpty());
    QCOMPARE(mParser.getErrorMessage(IXMLDomParser::FileTooLarge), "unknown error");
    QCOMPARE(mParser.getErrorMessage(0), "no error");
}

void XMLDomParserTest::time_grows_with_size_only_data()
{
    const auto size = static_cast<int>(IXMLDomParser::kMaxFileSize) - 100;
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("elements side by side") << QByteArray("<a/>").repeated(size / 4);
    QTest::newRow("a line each") << QByteArray("\n<a/>").repeated(size / 5);
    QTest::newRow("one long line") << QByteArray("\u20ac<a/>").repeated(size / 7);
    QTest::newRow("escapes") << QByteArray("&#65;").repeated(size / 5);
    QByteArray attributes = "<a";
    for (int i = 0; i < 200000; ++i) {
        attributes += " a" + QByteArray::number(i) + "=''";
    }
    QTest::newRow("attributes") << attributes + "/>";
}

void XMLDomParserTest::time_grows_with_size_only()
{
    QFETCH(QByteArray, content);
    QElapsedTimer timer;
    timer.start();
    const ITCXMLNode root = parse("<sdcard>" + content + "</sdcard>");
    qint64 lines = 0;
    for (int i = 0; i < root.nChildNode(); ++i) {
        lines += root.getChildNode(i).line();
    }
    QCOMPARE(mResults.error, 0);
    QVERIFY(lines >= root.nChildNode());
    // Work that grows with the square of the size would take minutes.
    QVERIFY2(timer.elapsed() < 10000, qPrintable(QString::number(timer.elapsed())));
}

QTEST_APPLESS_MAIN(XMLDomParserTest)
#include "XMLDomParserTest.moc"
