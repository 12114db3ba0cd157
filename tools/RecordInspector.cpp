// xkinspect: shows the stream records XKComBsD writes, one line per record
// (offset, kind, length, decoded value), and names the first byte that does
// not fit when they are corrupt.
//
// The bytes carry no marker of what they hold, so the reader says which
// records to expect: --as takes a comma-separated list of kinds that is read
// in order and started again until the input ends, so "--as variant" reads a
// run of VARIANT records and "--as object,bag" the class id and bag data that
// PropertyBag_LoadFromStream reads. The input must end where a list ends.
//
// It reads the bytes itself rather than through the library's loaders: a
// loader only says that a record failed, while this parser knows which byte
// broke which rule. Every read is bounds-checked against the input, so no
// input makes it read outside it; the first broken rule ends the run with
// exit code 2.
#include <objbase.h>
#include <windows.h>
#include <xkcombsd/Identifiers.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

const char kUsage[] =
    "usage: xkinspect --as KINDS FILE\n"
    "       xkinspect --as KINDS --reg ROOT\\SUBKEY [--value NAME]\n"
    "KINDS is a comma-separated list of record kinds, read in order and again\n"
    "until the input ends: bstr, olestr, object, variant, property, header, bag.\n"
    "  bag     a property-bag header and the property records it counts\n"
    "  object  a class id; its own data, unless the class is null or one of the\n"
    "          library's property bags, runs to the end of the input undecoded\n"
    "--reg reads the key's default value (or NAME) under HKCR, HKCU, HKLM or HKU,\n"
    "as the library's registry store keeps a stream there.\n"
    "Exit codes: 0 every record decoded, 1 bad arguments or unreadable input,\n"
    "2 corrupt input (the offset of the first byte that does not fit is shown).\n";

// The first byte that breaks a rule, and the rule.
struct Corrupt {
  size_t offset;
  std::string reason;
};

struct Line {
  size_t offset;
  size_t length;
  std::string kind;
  std::string value;
};

template <typename... Args>
std::string Format(const char* format, Args... args) {
  char text[160];
  std::snprintf(text, sizeof text, format, args...);
  return text;
}

// Little-endian reads over the input that refuse to pass its end.
class ByteReader {
 public:
  explicit ByteReader(const Bytes& bytes) : m_bytes(bytes) {}

  size_t Offset() const { return m_next; }
  size_t Left() const { return m_bytes.size() - m_next; }
  bool AtEnd() const { return Left() == 0; }
  unsigned char At(size_t offset) const { return m_bytes[offset]; }

  // Start of n bytes the caller then reads with At; they are known to exist.
  size_t Skip(size_t n, const char* field) {
    if (n > Left())
      throw Corrupt{m_bytes.size(),
                    Format("input ends inside the %s (%zu bytes, %zu left)", field, n, Left())};
    const size_t start = m_next;
    m_next += n;
    return start;
  }
  uint64_t Unsigned(size_t width, const char* field) {
    const size_t start = Skip(width, field);
    uint64_t value = 0;
    for (size_t i = width; i-- > 0;) value = value << 8 | m_bytes[start + i];
    return value;
  }
  uint32_t U32(const char* field) { return static_cast<uint32_t>(Unsigned(4, field)); }
  // The payload a count at countOffset announces.
  size_t Counted(size_t countOffset, uint32_t count, const char* field) {
    if (count > Left())
      throw Corrupt{countOffset, Format("%s %u runs past the end of the input (%zu bytes follow)",
                                        field, count, Left())};
    return Skip(count, field);
  }
  // The undecoded rest, for object data of a foreign class.
  size_t Rest() { return Skip(Left(), "rest"); }

 private:
  const Bytes& m_bytes;
  size_t m_next = 0;
};

std::string Quoted(const ByteReader& in, size_t start, size_t bytes) {
  std::string text = "\"";
  for (size_t i = 0; i + 1 < bytes; i += 2) {
    const unsigned unit = in.At(start + i) | in.At(start + i + 1) << 8;
    if (unit == '"' || unit == '\\')
      text += Format("\\%c", static_cast<char>(unit));
    else if (unit >= 0x20 && unit < 0x7F)
      text += static_cast<char>(unit);
    else
      text += Format("\\u%04X", unit);
  }
  if (bytes % 2) text += Format("\\x%02X", in.At(start + bytes - 1));
  return text + "\"";
}

std::string GuidText(const ByteReader& in, size_t start) {
  auto byte = [&](size_t i) { return static_cast<unsigned>(in.At(start + i)); };
  std::string text = Format("{%02X%02X%02X%02X-%02X%02X-%02X%02X-", byte(3), byte(2), byte(1),
                            byte(0), byte(5), byte(4), byte(7), byte(6));
  for (size_t i = 8; i < 16; ++i) text += Format(i == 10 ? "-%02X" : "%02X", byte(i));
  return text + "}";
}

bool GuidIs(const ByteReader& in, size_t start, const GUID& guid) {
  unsigned char bytes[sizeof(GUID)];
  std::memcpy(bytes, &guid, sizeof bytes);
  for (size_t i = 0; i < sizeof bytes; ++i)
    if (in.At(start + i) != bytes[i]) return false;
  return true;
}

// How a VARIANT record's 8 value bytes read, by the type in its first 2 bytes.
enum class Show { kNothing, kSigned, kUnsigned, kReal, kCurrency, kCode, kBool, kBstr, kObject };

struct VariantType {
  unsigned vt;
  const char* name;
  size_t width;  // value bytes shown
  Show show;
};

// The types the library saves and loads; every other vt is refused both ways.
const VariantType kVariantTypes[] = {
    {VT_EMPTY, "VT_EMPTY", 0, Show::kNothing},
    {VT_NULL, "VT_NULL", 0, Show::kNothing},
    {VT_I2, "VT_I2", 2, Show::kSigned},
    {VT_I4, "VT_I4", 4, Show::kSigned},
    {VT_R4, "VT_R4", 4, Show::kReal},
    {VT_R8, "VT_R8", 8, Show::kReal},
    {VT_CY, "VT_CY", 8, Show::kCurrency},
    {VT_DATE, "VT_DATE", 8, Show::kReal},
    {VT_BSTR, "VT_BSTR", 0, Show::kBstr},
    {VT_DISPATCH, "VT_DISPATCH", 0, Show::kObject},
    {VT_ERROR, "VT_ERROR", 4, Show::kCode},
    {VT_BOOL, "VT_BOOL", 2, Show::kBool},
    {VT_UNKNOWN, "VT_UNKNOWN", 0, Show::kObject},
    {VT_I1, "VT_I1", 1, Show::kSigned},
    {VT_UI1, "VT_UI1", 1, Show::kUnsigned},
    {VT_UI2, "VT_UI2", 2, Show::kUnsigned},
    {VT_UI4, "VT_UI4", 4, Show::kUnsigned},
    {VT_INT, "VT_INT", 4, Show::kSigned},
    {VT_UINT, "VT_UINT", 4, Show::kUnsigned},
};

const VariantType* FindVariantType(unsigned vt) {
  for (const VariantType& type : kVariantTypes)
    if (type.vt == vt) return &type;
  return nullptr;
}

// A VT_R4 value is a float in the first 4 bytes, the others a double.
double RealOf(uint64_t bits, size_t width) {
  if (width == 8) {
    double wide;
    std::memcpy(&wide, &bits, 8);
    return wide;
  }
  float narrow;
  const auto narrowBits = static_cast<uint32_t>(bits);
  std::memcpy(&narrow, &narrowBits, 4);
  return narrow;
}

// bits holds width little-endian value bytes, zero-extended.
std::string ValueText(uint64_t bits, size_t width, Show show) {
  const unsigned shift = static_cast<unsigned>(64 - 8 * width);
  const auto signedValue = static_cast<int64_t>(bits << shift) >> shift;
  switch (show) {
    case Show::kSigned:
      return Format("%lld", static_cast<long long>(signedValue));
    case Show::kReal:
      return Format(width == 4 ? "%.9g" : "%.17g", RealOf(bits, width));
    case Show::kCurrency: {  // exact: a scaled 64-bit integer does not fit a double
      const uint64_t magnitude = signedValue < 0 ? 0 - static_cast<uint64_t>(signedValue)
                                                 : static_cast<uint64_t>(signedValue);
      return Format("%s%llu.%04llu", signedValue < 0 ? "-" : "",
                    static_cast<unsigned long long>(magnitude / 10000),
                    static_cast<unsigned long long>(magnitude % 10000));
    }
    case Show::kCode:
      return Format("0x%08llX", static_cast<unsigned long long>(bits));
    case Show::kBool:
      return bits == 0        ? "false"
             : bits == 0xFFFF ? "true"
                              : Format("0x%04llX", static_cast<unsigned long long>(bits));
    default:
      return Format("%llu", static_cast<unsigned long long>(bits));
  }
}

// Decodes records and collects one line for each; a broken rule is thrown as
// Corrupt, after the lines of every record before it.
class Inspector {
 public:
  explicit Inspector(const Bytes& bytes) : m_in(bytes) {}

  const std::vector<Line>& Lines() const { return m_lines; }

  void Sequence(const std::vector<std::string>& kinds) {
    while (!m_in.AtEnd())
      for (const std::string& kind : kinds) Record(kind, "");
  }

 private:
  void Record(const std::string& kind, const char* indent) {
    const size_t slot = Begin(indent + kind);
    Finish(slot, Decode(kind));
  }
  size_t Begin(std::string kind) {
    m_lines.push_back({m_in.Offset(), 0, std::move(kind), ""});
    return m_lines.size() - 1;
  }
  void Finish(size_t slot, std::string value) {
    m_lines[slot].length = m_in.Offset() - m_lines[slot].offset;
    m_lines[slot].value = std::move(value);
  }

  std::string Decode(const std::string& kind) {
    if (kind == "bstr") return Bstr();
    if (kind == "olestr") return OleString();
    if (kind == "object") return Object();
    if (kind == "variant") return Variant();
    if (kind == "property") return Property();
    if (kind == "header") return Header(nullptr);
    return Bag();  // the kinds were checked against kKinds
  }

  // A BSTR may hold any bytes, an odd count among them; only its terminator is fixed.
  std::string Bstr() {
    const size_t countAt = m_in.Offset();
    const uint32_t count = m_in.U32("BSTR count");
    if (count == 0) return "null";
    const size_t start = m_in.Counted(countAt, count, "BSTR count");
    if (count < 2) throw Corrupt{countAt, "BSTR count 1 leaves no room for the terminator"};
    for (size_t i = count - 2; i < count; ++i)
      if (m_in.At(start + i) != 0) throw Corrupt{start + i, "BSTR does not end in a NUL character"};
    return Quoted(m_in, start, count - 2);
  }

  std::string OleString() {
    const size_t countAt = m_in.Offset();
    const uint32_t count = m_in.U32("OLE-string count");
    if (count == 0) return "null";
    const size_t start = m_in.Counted(countAt, count, "OLE-string count");
    if (count % 2)
      throw Corrupt{countAt, Format("odd OLE-string byte count %u: characters are 16-bit", count)};
    size_t end = start;
    while (end + 2 < start + count && (m_in.At(end) | m_in.At(end + 1)) != 0) end += 2;
    if (end + 2 < start + count) throw Corrupt{end, "NUL character before the end of the count"};
    if ((m_in.At(end) | m_in.At(end + 1)) != 0)
      throw Corrupt{end, "OLE string does not end in a NUL character"};
    return Quoted(m_in, start, end - start);
  }

  std::string Object() {
    const size_t start = m_in.Skip(16, "class id");
    const std::string classId = GuidText(m_in, start);
    if (GuidIs(m_in, start, GUID_NULL)) return "null";
    if (GuidIs(m_in, start, CLSID_QvPropertyBag) || GuidIs(m_in, start, CLSID_QvPropertyBag_ST))
      return classId + " property bag (no data of its own)";
    const size_t data = m_in.Rest();
    return classId + Format(" with %zu bytes of its own data, not decoded", m_in.Offset() - data);
  }

  std::string Variant() {
    const size_t start = m_in.Skip(16, "VARIANT");
    const unsigned vt = m_in.At(start) | m_in.At(start + 1) << 8;
    const VariantType* type = FindVariantType(vt);
    if (!type && vt == VT_ARRAY)
      throw Corrupt{start, "VT_ARRAY: the library writes no array records"};
    if (!type) throw Corrupt{start, Format("unknown VARIANT type 0x%04X", vt)};
    const std::string name = type->name;
    if (type->show == Show::kBstr) return name + " " + Bstr();
    if (type->show == Show::kObject) return name + " " + Object();
    uint64_t bits = 0;
    for (size_t i = type->width; i-- > 0;) bits = bits << 8 | m_in.At(start + 8 + i);
    return type->width ? name + " " + ValueText(bits, type->width, type->show) : name;
  }

  // The writer rounds the name's byte length up to a multiple of 4 and pads
  // with zeros, so the name ends at its first NUL and fixes the length.
  std::string Property() {
    const size_t lengthAt = m_in.Offset();
    const uint32_t length = m_in.U32("name length");
    const size_t name = m_in.Counted(lengthAt, length, "name length");
    if (length == 0 || length % 4)
      throw Corrupt{lengthAt, Format("name length %u is not a positive multiple of 4", length)};
    size_t characters = 0;
    while (2 * characters < length &&
           (m_in.At(name + 2 * characters) | m_in.At(name + 2 * characters + 1)) != 0)
      ++characters;
    if (characters == 0) throw Corrupt{name, "empty property name"};
    const size_t expected = (2 * characters + 3) & ~size_t{3};
    if (length != expected)
      throw Corrupt{lengthAt, Format("name length %u does not fit the %zu-character name (%zu)",
                                     length, characters, expected)};
    return Quoted(m_in, name, 2 * characters) + " = " + Variant();
  }

  std::string Header(uint32_t* count) {
    const size_t start = m_in.Skip(16, "property-bag header");
    if (m_in.At(start) != 1)
      throw Corrupt{start, Format("property-bag header version %u: only 1 is loaded",
                                  static_cast<unsigned>(m_in.At(start)))};
    uint32_t properties = 0;
    for (size_t i = 8; i-- > 4;) properties = properties << 8 | m_in.At(start + i);
    if (count) *count = properties;
    return Format("version 1, %u properties", properties);
  }

  // The smallest property record: a 4-byte length, a one-character name and
  // its padding, and a VARIANT record.
  static constexpr uint64_t kSmallestProperty = 4 + 4 + 16;

  std::string Bag() {
    const size_t countAt = m_in.Offset() + 4;
    uint32_t count = 0;
    const size_t header = Begin("  header");
    Finish(header, Header(&count));
    if (kSmallestProperty * count > m_in.Left())
      throw Corrupt{
          countAt, Format("%u properties need at least %llu bytes, %zu follow", count,
                          static_cast<unsigned long long>(kSmallestProperty * count), m_in.Left())};
    for (uint32_t i = 0; i < count; ++i) Record("property", "  ");
    return Format("%u properties", count);
  }

  ByteReader m_in;
  std::vector<Line> m_lines;
};

const char* const kKinds[] = {"bstr", "olestr", "object", "variant", "property", "header", "bag"};

bool ParseKinds(const std::string& list, std::vector<std::string>* kinds) {
  size_t from = 0;
  for (;;) {
    const size_t comma = list.find(',', from);
    const std::string kind = list.substr(from, comma == std::string::npos ? comma : comma - from);
    bool known = false;
    for (const char* name : kKinds) known = known || kind == name;
    if (!known) return false;
    kinds->push_back(kind);
    if (comma == std::string::npos) return true;
    from = comma + 1;
  }
}

bool ReadFile(const char* path, Bytes* bytes) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  bytes->assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return !file.bad();
}

HKEY RootKey(const std::string& name) {
  const struct {
    const char* shortName;
    const char* longName;
    HKEY key;
  } roots[] = {{"HKCR", "HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
               {"HKCU", "HKEY_CURRENT_USER", HKEY_CURRENT_USER},
               {"HKLM", "HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
               {"HKU", "HKEY_USERS", HKEY_USERS}};
  for (const auto& root : roots)
    if (_stricmp(name.c_str(), root.shortName) == 0 || _stricmp(name.c_str(), root.longName) == 0)
      return root.key;
  return nullptr;
}

// A named value, or the key's default value when name is null.
bool ReadRegistryValue(const std::string& path, const char* name, Bytes* bytes) {
  const size_t slash = path.find('\\');
  const HKEY root = RootKey(path.substr(0, slash));
  HKEY key = nullptr;
  if (!root || RegOpenKeyExA(root, slash == std::string::npos ? nullptr : path.c_str() + slash + 1,
                             0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS)
    return false;
  DWORD size = 0;
  LONG status = RegQueryValueExA(key, name, nullptr, nullptr, nullptr, &size);
  while (status == ERROR_SUCCESS || status == ERROR_MORE_DATA) {
    bytes->resize(size);
    status = RegQueryValueExA(key, name, nullptr, nullptr, bytes->data(), &size);
    if (status == ERROR_SUCCESS) {
      bytes->resize(size);
      break;
    }
  }
  RegCloseKey(key);
  return status == ERROR_SUCCESS;
}

struct Options {
  std::vector<std::string> kinds;
  const char* file = nullptr;
  const char* registryKey = nullptr;
  const char* valueName = nullptr;
};

bool ParseOptions(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string option = argv[i];
    const bool hasArgument = i + 1 < argc;
    if (option == "--as" && hasArgument) {
      if (!ParseKinds(argv[++i], &options->kinds)) return false;
    } else if (option == "--reg" && hasArgument) {
      options->registryKey = argv[++i];
    } else if (option == "--value" && hasArgument) {
      options->valueName = argv[++i];
    } else if (option[0] != '-' && !options->file) {
      options->file = argv[i];
    } else {
      return false;
    }
  }
  return !options->kinds.empty() && (options->file != nullptr) != (options->registryKey != nullptr);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, &options)) {
    std::fputs(kUsage, stderr);
    return 1;
  }
  Bytes bytes;
  const bool read = options.file
                        ? ReadFile(options.file, &bytes)
                        : ReadRegistryValue(options.registryKey, options.valueName, &bytes);
  if (!read) {
    std::fprintf(stderr, "xkinspect: cannot read %s\n",
                 options.file ? options.file : options.registryKey);
    return 1;
  }
  Inspector inspector(bytes);
  int status = 0;
  std::string failure;
  try {
    inspector.Sequence(options.kinds);
  } catch (const Corrupt& corrupt) {
    failure = Format("corrupt at offset %zu: ", corrupt.offset) + corrupt.reason;
    status = 2;
  }
  for (const Line& line : inspector.Lines())
    if (!line.value.empty())
      std::printf("%6zu  %-10s %6zu  %s\n", line.offset, line.kind.c_str(), line.length,
                  line.value.c_str());
  if (status) std::printf("%s\n", failure.c_str());
  return status;
}
