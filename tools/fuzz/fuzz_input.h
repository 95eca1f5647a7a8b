// One input of a fuzz target: named fields, each a text of UTF-16 code units,
// a byte string or a number. A target reads its fields by name and falls back
// to a default for a field that is missing, so any mutation of any field gives
// an input the target can run. Saved to a file and read back for replay.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace zeph::fuzz {

enum class FieldKind : char {
    Text = 'T',    // UTF-16 code units, any of them (lone surrogates, NUL)
    Bytes = 'B',   // any bytes (a file's content, a registry value's data)
    Number = 'N',  // an unsigned 64-bit number
};

struct Field {
    std::string name;
    FieldKind kind = FieldKind::Bytes;
    std::string data;  // Text: the units' bytes, little-endian; Number: eight bytes, little-endian
};

class Input {
public:
    std::wstring Text(const std::string& name, const std::wstring& fallback = {}) const;
    std::string Bytes(const std::string& name, const std::string& fallback = {}) const;
    uint64_t Number(const std::string& name, uint64_t fallback = 0) const;
    bool Has(const std::string& name) const { return Find(name) != nullptr; }

    Input& SetText(const std::string& name, const std::wstring& text);
    Input& SetBytes(const std::string& name, const std::string& bytes);
    Input& SetNumber(const std::string& name, uint64_t number);

    std::vector<Field>& Fields() { return fields_; }
    const std::vector<Field>& Fields() const { return fields_; }

    // "zeph-fuzz input <target>", then each field as "<kind> <name> <bytes>" and its data.
    std::string Serialize(const std::string& target) const;
    // The input and its target's name; nothing for a file that is not one.
    static std::optional<std::pair<std::string, Input>> Parse(const std::string& bytes);

private:
    const Field* Find(const std::string& name) const;
    Input& Set(const std::string& name, FieldKind kind, std::string data);

    std::vector<Field> fields_;
};

std::string TextBytes(const std::wstring& text);
std::wstring BytesText(const std::string& bytes);  // an odd last byte is dropped

}  // namespace zeph::fuzz
