#include <sys/stat.h>

#include <QElapsedTimer>
#include <QTest>

#include "ParsedFile.h"

class XMLDomParserTest : public QObject, private ParsedFile
{
    Q_OBJECT

private Q_SLOTS:
    void a_document_is_read_as_a_tree_of_elements_in_document_order();
    void the_empty_node_has_nothing();
    void text_is_joined_and_loses_the_white_space_around_it_data();
    void text_is_joined_and_loses_the_white_space_around_it();
    void attributes_are_found_by_name_and_listed_in_document_order();
    void other_encodings_are_converted_to_utf8();
    void elements_know_their_line_and_column();
    void a_node_outlives_its_parser_and_its_root();
    void a_document_that_breaks_the_rules_is_refused_with_its_place_data();
    void a_document_that_breaks_the_rules_is_refused_with_its_place();
    void a_file_that_cannot_be_read_is_refused_at_once();
    void size_and_nesting_are_limited();
    void a_parser_starts_anew_with_each_file();
    void time_does_not_grow_with_the_square_of_the_size();
};

void XMLDomParserTest::a_document_is_read_as_a_tree_of_elements_in_document_order()
{
    const ITCXMLNode root =
        parse("<?xml version='1.0' encoding='UTF-8'?><!DOCTYPE sdcard>\n"
              "<sdcard mountpoint='/media'>text<!-- comment --><x:a><c/><d/></x:a>text"
              "<?instruction?><b/><![CDATA[text]]><e><f/></e></sdcard>");
    QCOMPARE(mResults.error, 0);
    QVERIFY(!root.isEmpty());
    QCOMPARE(root.getName(), "sdcard");
    QStringList names;
    for (int i = 0; i < root.nChildNode(); ++i) {
        const ITCXMLNode child = root.getChildNode(i);
        names << child.getName();
        for (int n = 0; n < child.nChildNode(); ++n) {
            names << child.getChildNode(n).getName();
        }
    }
    QCOMPARE(names, (QStringList{"x:a", "c", "d", "b", "e", "f"}));
    QVERIFY(root.getChildNode(-1).isEmpty());
    QVERIFY(root.getChildNode(3).isEmpty());
}

void XMLDomParserTest::the_empty_node_has_nothing()
{
    const ITCXMLNode node;
    QVERIFY(node.isEmpty());
    QCOMPARE(node.getName(), nullptr);
    QCOMPARE(node.getText(), nullptr);
    QCOMPARE(node.getAttribute("size"), nullptr);
    QCOMPARE(node.nAttribute(), 0);
    QCOMPARE(node.getAttributeName(0), nullptr);
    QCOMPARE(node.nChildNode(), 0);
    QVERIFY(node.getChildNode(0).isEmpty());
    QCOMPARE(node.line(), 0);
    QCOMPARE(node.column(), 0);
}

void XMLDomParserTest::text_is_joined_and_loses_the_white_space_around_it_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("text");
    const auto row = [](const char* name, const char* content, const char* text) {
        QTest::newRow(name) << QByteArray(content) << QByteArray(text);
    };
    row("indented", "\r\n\t logs \n", "logs");
    row("white space within", " a  b ", "a  b");
    row("white space alone", " \n\t\r ", nullptr);
    row("before and after a child", "lo<a>no</a>gs", "logs");
    row("around a comment", "lo<!-- no -->gs", "logs");
    row("character data section", " <![CDATA[<a>&amp; ]]> ", "<a>&amp;");
    row("escapes", "&lt;&amp;&gt;&quot;&apos;&#65;&#x42;", "<&>\"'AB");
    row("beyond ASCII", "\u00a0\u20ac\U0001F4BE", "\u00a0\u20ac\U0001F4BE");
}

void XMLDomParserTest::text_is_joined_and_loses_the_white_space_around_it()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, text);
    const ITCXMLNode root = parse("<sdcard>" + content + "</sdcard>");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(root.getText(), text.isNull() ? nullptr : text.constData());
}

void XMLDomParserTest::attributes_are_found_by_name_and_listed_in_document_order()
{
    const ITCXMLNode root = parse("<sdcard z=' two ' gr\u00f6\u00dfe='' x:d='&lt;&#10;\u20ac'/>");
    QCOMPARE(root.getAttribute("z"), " two ");
    QCOMPARE(root.getAttribute("gr\u00f6\u00dfe"), "");
    QCOMPARE(root.getAttribute("x:d"), "<\n\u20ac");
    QCOMPARE(root.getAttribute("Z"), nullptr);
    QCOMPARE(root.nAttribute(), 3);
    QCOMPARE(root.getAttributeName(0), "z");
    QCOMPARE(root.getAttributeName(1), "gr\u00f6\u00dfe");
    QCOMPARE(root.getAttributeName(2), "x:d");
    QCOMPARE(root.getAttributeName(-1), nullptr);
    QCOMPARE(root.getAttributeName(3), nullptr);
}

void XMLDomParserTest::other_encodings_are_converted_to_utf8()
{
    const QString document = QString::fromUtf8("<sdcard>gr\u00fcn</sdcard>");
    const QString marked = QChar(QChar::ByteOrderMark) + document;
    const QByteArray utf16(reinterpret_cast<const char*>(marked.utf16()), marked.size() * 2);
    const QByteArray declared = "<?xml version='1.0' encoding='ISO-8859-1'?>" + document.toLatin1();
    for (const QByteArray& content : {marked.toUtf8(), utf16, declared}) {
        QCOMPARE(parse(content).getText(), "gr\u00fcn");
    }
}

void XMLDomParserTest::elements_know_their_line_and_column()
{
    const ITCXMLNode root =
        parse("<?xml version='1.0'?>\r\n<sdcard>\r\n\t\u20ac<a/><b\n/>\n&lt;<c x='>'/></sdcard>");
    QStringList places;
    for (int i = 0; i < root.nChildNode(); ++i) {
        const ITCXMLNode child = root.getChildNode(i);
        places << QString("%1 %2:%3").arg(child.getName()).arg(child.line()).arg(child.column());
    }
    QCOMPARE(places, (QStringList{"a 3:3", "b 3:7", "c 5:5"}));
    QCOMPARE(root.line(), 2);
    QCOMPARE(root.column(), 1);
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
    QCOMPARE(child.getAttribute("b"), "c");
}

void XMLDomParserTest::a_document_that_breaks_the_rules_is_refused_with_its_place_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("error");
    QTest::addColumn<QByteArray>("message");
    const auto row = [](const char* name, const QByteArray& content, const QByteArray& message,
                        int error = IXMLDomParser::NotWellFormed) {
        QTest::newRow(name) << content << error << message;
    };
    row("empty file", "", "Premature end of document at line 1, column 1");
    row("unclosed element", "<sdcard>\n  <a>", "Premature end of document at line 2, column 5");
    row("wrong end tag", "<sdcard>\n <a>\n </sdcard>",
        "Opening and ending tag mismatch at line 3, column 10");
    row("second root", "<sdcard/>\n<a/>", "Extra content at end of document at line 2, column 4");
    row("attribute given twice", "<sdcard a='' a=''/>",
        "Attribute 'a' redefined at line 1, column 19");
    row("undefined entity", "<sdcard>&a;</sdcard>", "Entity 'a' not declared at line 1, column 11");
    row("unknown encoding", "<?xml version='1.0' encoding='Klingon'?><sdcard/>",
        "Encoding Klingon is unsupported at line 1, column 40");
    row("NUL reference", "<sdcard>&#0;</sdcard>",
        "Invalid character reference at line 1, column 12");
    const QByteArray broken = "NUL byte or broken encoding at line 2, column 2";
    row("NUL byte", QByteArray("<sdcard>\na\0b</sdcard>", 20), broken);
    row("Latin-1 that is not declared", "<sdcard>\n\u00fc\xFC</sdcard>", broken);
    row("overlong UTF-8", "<sdcard>\na\xC0\xAF</sdcard>", broken);
    row("surrogate in UTF-8", "<sdcard>\na\xED\xA0\x80</sdcard>", broken);
    row("UTF-8 cut off by the end", "<sdcard/>\n \xE2\x82", broken);
    row("other root", "\n <Sdcard/>",
        "root element 'Sdcard' instead of 'sdcard' at line 2, column 2",
        IXMLDomParser::UnexpectedRoot);
    const QByteArray declaring =
        "document type with declarations or a reference to a file at line ";
    row("entity", "<!DOCTYPE sdcard [\n<!ENTITY a SYSTEM '/etc/passwd'>]><sdcard>&a;</sdcard>",
        declaring + "2, column 34", IXMLDomParser::DocumentTypeRefused);
    row("document type elsewhere", "<!DOCTYPE sdcard SYSTEM 'sdcard.dtd'><sdcard/>",
        declaring + "1, column 37", IXMLDomParser::DocumentTypeRefused);
}

void XMLDomParserTest::a_document_that_breaks_the_rules_is_refused_with_its_place()
{
    QFETCH(QByteArray, content);
    QFETCH(int, error);
    QFETCH(QByteArray, message);
    QVERIFY(parse(content).isEmpty());
    QCOMPARE(mParser.getErrorMessage(mResults.error), message.constData());
    QCOMPARE(mResults.error, error);
    QVERIFY(message.endsWith("line " + QByteArray::number(mResults.line) + ", column " +
                             QByteArray::number(mResults.column)));
}

void XMLDomParserTest::a_file_that_cannot_be_read_is_refused_at_once()
{
    const auto messageFor = [this](const char* name) {
        const QByteArray path = QFile::encodeName(mDirectory.filePath(name));
        const ITCXMLNode root = mParser.parseFile(path.constData(), "sdcard", mResults);
        return root.isEmpty() ? mParser.getErrorMessage(IXMLDomParser::UnreadableFile) : "read";
    };
    const QByteArray pipe = QFile::encodeName(mDirectory.filePath("pipe"));
    QCOMPARE(mkfifo(pipe.constData(), 0600), 0);
    QCOMPARE(messageFor("missing.xml"), "No such file or directory");
    QCOMPARE(messageFor("pipe"), "not a regular file");
}

void XMLDomParserTest::size_and_nesting_are_limited()
{
    const QByteArray text(IXMLDomParser::kMaxFileSize - 17, 'x');
    QCOMPARE(parse("<sdcard>" + text + "</sdcard>").getText(), text.constData());
    QVERIFY(parse("<sdcard>" + text + "x</sdcard>").isEmpty());
    QCOMPARE(mParser.getErrorMessage(IXMLDomParser::FileTooLarge), "larger than 4194304 bytes");

    const auto nested = [](int depth) {
        return "<sdcard>" + QByteArray("<a>").repeated(depth - 1) + "text" +
               QByteArray("</a>").repeated(depth - 1) + "</sdcard>";
    };
    ITCXMLNode node = parse(nested(IXMLDomParser::kMaxDepth));
    while (node.nChildNode() > 0) {
        node = node.getChildNode(0);
    }
    QCOMPARE(node.getText(), "text");
    QVERIFY(parse(nested(IXMLDomParser::kMaxDepth + 1)).isEmpty());
    QCOMPARE(mParser.getErrorMessage(IXMLDomParser::TooDeeplyNested),
             "elements nested deeper than 2048 at line 1, column 6150");
}

void XMLDomParserTest::a_parser_starts_anew_with_each_file()
{
    QVERIFY(parse("<sdcard>").isEmpty());
    QCOMPARE(mParser.getErrorMessage(IXMLDomParser::FileTooLarge), "unknown error");
    QCOMPARE(parse("<sdcard>a</sdcard>").getText(), "a");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(mParser.getErrorMessage(0), "no error");
}

void XMLDomParserTest::time_does_not_grow_with_the_square_of_the_size()
{
    QElapsedTimer timer;
    timer.start();
    for (const QByteArray element : {"\n<a/>", "\u20ac<a/>"}) {
        const int count = IXMLDomParser::kMaxFileSize / 4 / element.size();
        QVERIFY(!parse("<sdcard>" + element.repeated(count) + "</sdcard>").isEmpty());
    }
    // A quadratic time would be minutes.
    QVERIFY2(timer.elapsed() < 10000, qPrintable(QString::number(timer.elapsed())));
}

QTEST_APPLESS_MAIN(XMLDomParserTest)
#include "XMLDomParserTest.moc"
