// The walk over a feed document: rss, channel, items, their titles and descriptions.
#include "items/rss_feed_text.h"

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <libxml/parser.h>

#include "items/rss_loader.h"
#include "platform/t4mi_globals.h"

namespace {
struct xml_doc_deleter {
    void operator()(xmlDoc* doc) const { xmlFreeDoc(doc); }
};
using xml_doc_owner = std::unique_ptr<xmlDoc, xml_doc_deleter>;

bool named(const xmlNode* node, const char* name) { return xmlStrcmp(node->name, BAD_CAST name) == 0; }

// The first of `node` and its following siblings with the given name. Any
// node kind counts, as the walk compares names only.
const xmlNode* first_named(const xmlNode* node, const char* name)
{
    while (node != nullptr && !named(node, name))
        node = node->next;
    return node;
}

void warn_no_rss()
{
    std::fprintf(stderr, "WARNING: Did not find RSS node\n");
    std::fprintf(stderr, "WARNING: Did not find channel node\n");
}

// Adds one item's "title - description" (or the one that is not empty) to
// `text`, behind a separator when `text` already holds an item.
void append_item(const xmlNode* item, std::string& text)
{
    std::string title;
    std::string description;
    for (const xmlNode* child = item->children; child != nullptr; child = child->next) {
        // Only the first child's own content counts: a text or CDATA node's
        // text, nothing for an element. "<title>A <b>B</b></title>" gives "A ".
        if (child->type != XML_ELEMENT_NODE || child->children == nullptr || child->children->content == nullptr)
            continue;
        const char* content = reinterpret_cast<const char*>(child->children->content);
        if (named(child, "title"))
            title = content;
        else if (named(child, "description"))
            description = content;
    }
    if (!title.empty())
        title = RSSInnerHTMLToText(title);
    if (!description.empty())
        description = RSSInnerHTMLToText(description);
    if (title.empty() && description.empty())
        return;
    if (!text.empty())
        text.push_back('\x1f');
    if (!title.empty() && !description.empty())
        text += title + " - " + description;
    else
        text += title.empty() ? description : title;
}
} // namespace

std::string rss_text_from_document(const xmlDoc* doc)
{
    if (doc == nullptr) {
        warn_no_rss();
        return {};
    }
    const xmlNode* root = xmlDocGetRootElement(doc);
    if (root == nullptr) {
        // Deliberate: a document without a root ends the process, kept as it
        // is unless the operator chose --harden.
        if (t4mi_harden) {
            std::fprintf(stderr, "WARNING: Empty XML document\n");
            return {};
        }
        std::fprintf(stderr, "Empty XML document\n");
        std::abort();
    }
    const xmlNode* rss = first_named(root, "rss");
    if (rss == nullptr) {
        warn_no_rss();
        return {};
    }
    const xmlNode* channel = first_named(rss->children, "channel");
    if (channel == nullptr) {
        std::fprintf(stderr, "WARNING: Did not find channel node\n");
        return {};
    }
    std::string text;
    for (const xmlNode* node = channel->children; node != nullptr; node = node->next)
        if (named(node, "item"))
            append_item(node, text);
    return text;
}

std::string rss_text_from_buffer(const char* buffer, int capacity)
{
    const xml_doc_owner doc(xmlParseMemory(buffer, capacity));
    return rss_text_from_document(doc.get());
}
