#include "fuzz_input.h"

#include <cstring>
#include <sstream>

namespace zeph::fuzz {

namespace {

constexpr char kMagic[] = "zeph-fuzz input ";

}  // namespace

std::string TextBytes(const std::wstring& text)
{
    std::string bytes(text.size() * 2, '\0');
    for (size_t i = 0; i < text.size(); ++i) {
        bytes[2 * i] = static_cast<char>(text[i] & 0xFF);
        bytes[2 * i + 1] = static_cast<char>((text[i] >> 8) & 0xFF);
    }
    return bytes;
}

std::wstring BytesText(const std::string& bytes)
{
    std::wstring text(bytes.size() / 2, L'\0');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<wchar_t>(static_cast<unsigned char>(bytes[2 * i]) |
                                       (static_cast<unsigned char>(bytes[2 * i + 1]) << 8));
    }
    return text;
}

const Field* Input::Find(const std::string& name) const
{
    for (const Field& field : fields_) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

std::wstring Input::Text(const std::string& name, const std::wstring& fallback) const
{
    const Field* field = Find(name);
    return field != nullptr ? BytesText(field->data) : fallback;
}

std::string Input::Bytes(const std::string& name, const std::string& fallback) const
{
    const Field* field = Find(name);
    return field != nullptr ? field->data : fallback;
}

uint64_t Input::Number(const std::string& name, uint64_t fallback) const
{
    const Field* field = Find(name);
    if (field == nullptr) {
        return fallback;
    }
    uint64_t number = 0;
    for (size_t i = 0; i < field->data.size() && i < 8; ++i) {
        number |= static_cast<uint64_t>(static_cast<unsigned char>(field->data[i])) << (8 * i);
    }
    return number;
}

Input& Input::Set(const std::string& name, FieldKind kind, std::string data)
{
    for (Field& field : fields_) {
        if (field.name == name) {
            field.kind = kind;
            field.data = std::move(data);
            return *this;
        }
    }
    fields_.push_back({name, kind, std::move(data)});
    return *this;
}

Input& Input::SetText(const std::string& name, const std::wstring& text)
{
    return Set(name, FieldKind::Text, TextBytes(text));
}

Input& Input::SetBytes(const std::string& name, const std::string& bytes)
{
    return Set(name, FieldKind::Bytes, bytes);
}

Input& Input::SetNumber(const std::string& name, uint64_t number)
{
    std::string data(8, '\0');
    for (size_t i = 0; i < 8; ++i) {
        data[i] = static_cast<char>((number >> (8 * i)) & 0xFF);
    }
    return Set(name, FieldKind::Number, std::move(data));
}

std::string Input::Serialize(const std::string& target) const
{
    std::string text = kMagic + target + "\n";
    for (const Field& field : fields_) {
        text += static_cast<char>(field.kind);
        text += " " + field.name + " " + std::to_string(field.data.size()) + "\n";
        text += field.data;
        text += "\n";
    }
    return text;
}

std::optional<std::pair<std::string, Input>> Input::Parse(const std::string& bytes)
{
    if (bytes.rfind(kMagic, 0) != 0) {
        return std::nullopt;
    }
    size_t position = bytes.find('\n');
    if (position == std::string::npos) {
        return std::nullopt;
    }
    std::pair<std::string, Input> result;
    result.first = bytes.substr(std::strlen(kMagic), position - std::strlen(kMagic));
    ++position;
    while (position < bytes.size()) {
        const size_t lineEnd = bytes.find('\n', position);
        if (lineEnd == std::string::npos) {
            return std::nullopt;
        }
        std::istringstream header(bytes.substr(position, lineEnd - position));
        char kind = 0;
        std::string name;
        size_t size = 0;
        if (!(header >> kind >> name >> size) || (kind != 'T' && kind != 'B' && kind != 'N') ||
            size > bytes.size() - lineEnd - 1) {
            return std::nullopt;
        }
        result.second.Fields().push_back({name, static_cast<FieldKind>(kind), bytes.substr(lineEnd + 1, size)});
        position = lineEnd + 1 + size + 1;
    }
    return result;
}

}  // namespace zeph::fuzz
