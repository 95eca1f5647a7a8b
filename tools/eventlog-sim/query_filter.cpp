#include "query_filter.h"

#include "names.h"

#include <cwctype>

namespace evtsim {
namespace {

using Node = QueryFilter::Node;

// Recursive descent over the query text; every Parse* returns nullopt on a syntax error.
class Parser {
public:
    explicit Parser(std::wstring_view text) : text_(text) {}

    std::optional<std::optional<Node>> ParseQuery()
    {
        if (!Eat(L"*")) {
            return std::nullopt;
        }
        std::optional<Node> root;
        if (Eat(L"[")) {
            if (!EatWord(L"System") || !Eat(L"[")) {
                return std::nullopt;
            }
            root = ParseOr();
            if (!root || !Eat(L"]") || !Eat(L"]")) {
                return std::nullopt;
            }
        }
        SkipSpace();
        if (pos_ != text_.size()) {
            return std::nullopt;
        }
        return root;
    }

private:
    std::optional<Node> ParseOr() { return ParseList(Node::Kind::Or, L"or", &Parser::ParseAnd); }
    std::optional<Node> ParseAnd() { return ParseList(Node::Kind::And, L"and", &Parser::ParsePrimary); }

    std::optional<Node> ParseList(Node::Kind kind, std::wstring_view op, std::optional<Node> (Parser::*item)())
    {
        std::optional<Node> first = (this->*item)();
        if (!first) {
            return std::nullopt;
        }
        if (!PeekWord(op)) {
            return first;
        }
        Node list;
        list.kind = kind;
        list.children.push_back(std::move(*first));
        while (EatWord(op)) {
            std::optional<Node> next = (this->*item)();
            if (!next) {
                return std::nullopt;
            }
            list.children.push_back(std::move(*next));
        }
        return list;
    }

    std::optional<Node> ParsePrimary()
    {
        if (Eat(L"(")) {
            // Bounded nesting keeps a hostile query from exhausting the stack.
            if (++depth_ > kMaxDepth) {
                return std::nullopt;
            }
            std::optional<Node> inner = ParseOr();
            --depth_;
            if (!inner || !Eat(L")")) {
                return std::nullopt;
            }
            return inner;
        }
        Node node;
        if (EatWord(L"EventID")) {
            node.kind = Node::Kind::EventId;
            if (!Eat(L"=") || !ParseNumber(&node.eventId)) {
                return std::nullopt;
            }
            return node;
        }
        if (EatWord(L"Provider")) {
            node.kind = Node::Kind::Provider;
            std::wstring name;
            if (!Eat(L"[") || !Eat(L"@Name") || !Eat(L"=") || !ParseString(&name) || !Eat(L"]")) {
                return std::nullopt;
            }
            node.providerKey = FoldCase(name);
            return node;
        }
        return std::nullopt;
    }

    bool ParseNumber(std::uint32_t* value)
    {
        SkipSpace();
        std::uint64_t n = 0;
        const size_t start = pos_;
        while (pos_ < text_.size() && text_[pos_] >= L'0' && text_[pos_] <= L'9') {
            n = n * 10 + static_cast<std::uint64_t>(text_[pos_] - L'0');
            if (n > 0xffffffffu) {
                return false;
            }
            ++pos_;
        }
        *value = static_cast<std::uint32_t>(n);
        return pos_ != start;
    }

    bool ParseString(std::wstring* value)
    {
        SkipSpace();
        if (pos_ >= text_.size() || (text_[pos_] != L'\'' && text_[pos_] != L'"')) {
            return false;
        }
        const size_t close = text_.find(text_[pos_], pos_ + 1);
        if (close == std::wstring_view::npos) {
            return false;
        }
        value->assign(text_.substr(pos_ + 1, close - pos_ - 1));
        pos_ = close + 1;
        return true;
    }

    void SkipSpace()
    {
        while (pos_ < text_.size() && std::iswspace(text_[pos_])) {
            ++pos_;
        }
    }

    bool Eat(std::wstring_view token)
    {
        SkipSpace();
        if (text_.substr(pos_, token.size()) != token) {
            return false;
        }
        pos_ += token.size();
        return true;
    }

    // A keyword must not run on into a longer name ("order" is not "or").
    bool PeekWord(std::wstring_view word)
    {
        SkipSpace();
        if (text_.substr(pos_, word.size()) != word) {
            return false;
        }
        const size_t end = pos_ + word.size();
        return end == text_.size() || !(std::iswalnum(text_[end]) || text_[end] == L'_');
    }

    bool EatWord(std::wstring_view word)
    {
        if (!PeekWord(word)) {
            return false;
        }
        pos_ += word.size();
        return true;
    }

    static constexpr int kMaxDepth = 32;
    std::wstring_view text_;
    size_t pos_ = 0;
    int depth_ = 0;
};

bool Evaluate(const Node& node, std::wstring_view publisherKey, USHORT eventId)
{
    switch (node.kind) {
    case Node::Kind::Provider:
        return node.providerKey == publisherKey;
    case Node::Kind::EventId:
        return node.eventId == eventId;
    case Node::Kind::And:
        for (const Node& child : node.children) {
            if (!Evaluate(child, publisherKey, eventId)) {
                return false;
            }
        }
        return true;
    case Node::Kind::Or:
        for (const Node& child : node.children) {
            if (Evaluate(child, publisherKey, eventId)) {
                return true;
            }
        }
        return false;
    }
    return false;
}

}  // namespace

std::optional<QueryFilter> QueryFilter::Parse(const wchar_t* query)
{
    QueryFilter filter;
    if (query == nullptr) {
        return filter;
    }
    std::optional<std::optional<Node>> root = Parser(query).ParseQuery();
    if (!root) {
        return std::nullopt;
    }
    filter.root_ = std::move(*root);
    return filter;
}

bool QueryFilter::Matches(std::wstring_view publisherKey, USHORT eventId) const
{
    return !root_ || Evaluate(*root_, publisherKey, eventId);
}

}  // namespace evtsim
