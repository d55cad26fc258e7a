#include <cstdio>

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include "ParsedFile.h"

/// What is read of documents.
class XMLDomParserTest : public QObject, private ParsedFile
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
    void attributes_are_listed_in_the_order_of_the_document();
    void names_texts_and_attributes_are_utf8();
    void other_encodings_are_converted_to_utf8();
    void elements_know_their_line_and_column();
    void a_node_outlives_its_parser_and_its_root();
    void a_plain_document_type_is_accepted();
    void a_file_name_is_utf8_whatever_the_locale();
    void text_up_to_the_limit_is_read();
    void nesting_up_to_the_limit_is_read();
    void a_parser_starts_anew_with_each_file();
    void time_grows_with_size_only_data();
    void time_grows_with_size_only();
};

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

void XMLDomParserTest::attributes_are_listed_in_the_order_of_the_document()
{
    const ITCXMLNode root = parse("<sdcard z='1' a='2'><dir m='3'/></sdcard>");
    QCOMPARE(root.nAttribute(), 2);
    QCOMPARE(root.getAttributeName(0), "z");
    QCOMPARE(root.getAttributeName(1), "a");
    QCOMPARE(root.getAttributeName(-1), nullptr);
    QCOMPARE(root.getAttributeName(2), nullptr);
    QCOMPARE(root.getChildNode(0).nAttribute(), 1);
    QCOMPARE(root.getChildNode(0).getAttributeName(0), "m");
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

void XMLDomParserTest::a_parser_starts_anew_with_each_file()
{
    QVERIFY(parse("<sdcard>").isEmpty());
    QVERIFY(mResults.error != 0);
    QCOMPARE(parse("<sdcard>a</sdcard>").getText(), "a");
    QCOMPARE(mResults.error, 0);
    QCOMPARE(mResults.line, 0);
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
