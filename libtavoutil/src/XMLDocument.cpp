#include "XMLDocument.h"

#include <cstring>
#include <utility>

std::uint32_t ITCXMLNode::Document::addText(const char* text, std::size_t length)
{
    const auto offset = static_cast<std::uint32_t>(texts.size());
    texts.append(text, length).push_back('\0');
    return offset;
}

void ITCXMLNode::Document::listChildren()
{
    children.resize(elements.size() - 1);
    std::uint32_t next = 0;
    for (Element& element : elements) {
        element.firstChild = next;
        next += std::exchange(element.childCount, 0);
    }
    for (std::uint32_t i = 1; i < elements.size(); ++i) {
        Element& parent = elements[elements[i].parent];
        children[parent.firstChild + parent.childCount++] = i;
    }
}

ITCXMLNode::ITCXMLNode() = default;

ITCXMLNode::ITCXMLNode(std::shared_ptr<const Document> document, std::uint32_t element)
    : mDocument(std::move(document)), mElement(element)
{}

bool ITCXMLNode::isEmpty() const
{
    return mDocument == nullptr;
}

const char* ITCXMLNode::getName() const
{
    return isEmpty() ? nullptr : mDocument->textAt(mDocument->elements[mElement].name);
}

const char* ITCXMLNode::getText() const
{
    if (isEmpty() || mDocument->elements[mElement].text == Document::kNoText) {
        return nullptr;
    }
    return mDocument->textAt(mDocument->elements[mElement].text);
}

const char* ITCXMLNode::getAttribute(const char* name) const
{
    if (isEmpty()) {
        return nullptr;
    }
    const Document::Element& element = mDocument->elements[mElement];
    for (std::uint32_t i = 0; i < element.attributeCount; ++i) {
        const Document::Attribute& attribute = mDocument->attributes[element.firstAttribute + i];
        if (std::strcmp(mDocument->textAt(attribute.name), name) == 0) {
            return mDocument->textAt(attribute.value);
        }
    }
    return nullptr;
}

int ITCXMLNode::nAttribute() const
{
    return isEmpty() ? 0 : static_cast<int>(mDocument->elements[mElement].attributeCount);
}

const char* ITCXMLNode::getAttributeName(int index) const
{
    if (index < 0 || index >= nAttribute()) {
        return nullptr;
    }
    const std::size_t first = mDocument->elements[mElement].firstAttribute;
    return mDocument->textAt(mDocument->attributes[first + static_cast<std::uint32_t>(index)].name);
}

int ITCXMLNode::nChildNode() const
{
    return isEmpty() ? 0 : static_cast<int>(mDocument->elements[mElement].childCount);
}

ITCXMLNode ITCXMLNode::getChildNode(int index) const
{
    if (index < 0 || index >= nChildNode()) {
        return {};
    }
    const Document::Element& element = mDocument->elements[mElement];
    const std::size_t child = element.firstChild + static_cast<std::uint32_t>(index);
    return {mDocument, mDocument->children[child]};
}

int ITCXMLNode::line() const
{
    return isEmpty() ? 0 : mDocument->elements[mElement].line;
}

int ITCXMLNode::column() const
{
    return isEmpty() ? 0 : mDocument->elements[mElement].column;
}
