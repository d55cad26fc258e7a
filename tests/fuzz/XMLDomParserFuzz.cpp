#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

#include <tavoutil/XMLDomParser.h>

static void require(bool condition, const char* what)
{
    if (!condition) {
        std::cerr << "violated: " << what << std::endl;
        std::abort();
    }
}

static void visit(const ITCXMLNode& node)
{
    require(node.getName() != nullptr && *node.getName() != '\0', "every element has a name");
    require(node.line() > 0 && node.column() > 0, "every element has a place");
    if (const char* const text = node.getText()) {
        constexpr const char* kWhiteSpace = " \t\r\n";
        require(*text != '\0', "text is not empty");
        require(std::strchr(kWhiteSpace, *text) == nullptr &&
                    std::strchr(kWhiteSpace, text[std::strlen(text) - 1]) == nullptr,
                "text has no white space around it");
    }
    node.getAttribute("size");
    for (int i = 0; i < node.nChildNode(); ++i) {
        visit(node.getChildNode(i));
    }
    require(node.getChildNode(node.nChildNode()).isEmpty(), "no child after the last");
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const int file = memfd_create("input", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size),
            "the input can be handed over");

    IXMLDomParser parser;
    ITCXMLResults results;
    const ITCXMLNode root = parser.parseFile(path.c_str(), "sdcard", results);
    require(root.isEmpty() == (results.error != 0), "an error and a tree exclude each other");
    require(*parser.getErrorMessage(results.error) != '\0', "every outcome has a message");
    if (!root.isEmpty()) {
        require(std::strcmp(root.getName(), "sdcard") == 0, "the root is the one asked for");
        visit(root);
    }
    return 0;
}
