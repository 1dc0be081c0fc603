// SPDX-License-Identifier: BSD-3-Clause
// Quorvel: expressions over a cloud's fields: a recursive-descent parser of the grammar of
// docs/expressions.md into a flat tree, and its evaluation block by block over whole fragments.
#include "quorvel/core/core.hpp"
#include "quorvel/selection/selection.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>

namespace Quorvel {

namespace {

using Op = ExpressionNode::Op;

// A failed parse: the 0-based offset of the text where it failed, and what was expected there.
struct SyntaxError {
  std::size_t at;
  std::string what;
};

// One token: its kind, its text and where it starts.
struct Token {
  enum Kind { Number, Name, Symbol, End } kind;
  std::string text;
  std::size_t at;
  double number = 0.0;
};

// The two-character operators first, so that "<=" is not read as "<".
constexpr const char* Symbols[] = {"&&", "||", "==", "!=", "<=", ">=", "<", ">", "!",
                                   "+",  "-",  "*",  "/",  "(",  ")",  "[", "]", ","};

std::vector<Token> tokenize(const std::string& text) {
  std::vector<Token> tokens;
  std::size_t i = 0;
  while (i < text.size()) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (std::isspace(c)) {
      ++i;
      continue;
    }
    if (std::isdigit(c) || (c == '.' && i + 1 < text.size() && std::isdigit(text[i + 1]))) {
      Token t{Token::Number, "", i};
      const auto [end, ec] = std::from_chars(text.data() + i, text.data() + text.size(), t.number);
      if (ec != std::errc() || (end < text.data() + text.size() &&
                                (std::isalpha(static_cast<unsigned char>(*end)) || *end == '_')))
        throw SyntaxError{i, "a malformed number"};
      t.text.assign(text.data() + i, end);
      i = static_cast<std::size_t>(end - text.data());
      tokens.push_back(std::move(t));
      continue;
    }
    if (std::isalpha(c) || c == '_') {
      std::size_t j = i;
      while (j < text.size() &&
             (std::isalnum(static_cast<unsigned char>(text[j])) || text[j] == '_'))
        ++j;
      tokens.push_back({Token::Name, text.substr(i, j - i), i});
      i = j;
      continue;
    }
    bool found = false;
    for (const char* symbol : Symbols)
      if (text.compare(i, std::strlen(symbol), symbol) == 0) {
        tokens.push_back({Token::Symbol, symbol, i});
        i += std::strlen(symbol);
        found = true;
        break;
      }
    if (!found)
      throw SyntaxError{i, std::string("an unexpected character '") + text[i] + "'"};
  }
  tokens.push_back({Token::End, "", text.size()});
  return tokens;
}

// The parser: one function per rule of the grammar, each returning the index of its node.
class Parser {
public:
  Parser(const std::string& text, std::vector<ExpressionNode>& nodes)
      : tokens_(tokenize(text)), nodes_(nodes) {}

  void parseAll() {
    orRule();
    if (peek().kind != Token::End)
      fail("an operator or the end");
  }

  // Nesting and length beyond these are refused, so that neither the parser's nor the
  // evaluation's recursion nor its scratch (a block of values per node) grows without bound.
  static constexpr int MaximumDepth = 200;
  static constexpr std::size_t MaximumNodes = 1000;

private:
  const Token& peek() const { return tokens_[next_]; }
  bool accept(const char* symbol) {
    if (peek().kind == Token::Symbol && peek().text == symbol) {
      ++next_;
      return true;
    }
    return false;
  }
  bool acceptName(const char* name) {
    if (peek().kind == Token::Name && peek().text == name) {
      ++next_;
      return true;
    }
    return false;
  }
  [[noreturn]] void fail(const std::string& expected) const {
    const Token& t = peek();
    throw SyntaxError{t.at, "expected " + expected + ", found " +
                                (t.kind == Token::End ? "the end" : "\"" + t.text + "\"")};
  }
  // Counts one level of nesting while it lives.
  struct Nesting {
    explicit Nesting(Parser& p) : parser(p) {
      if (++parser.depth_ > MaximumDepth)
        throw SyntaxError{p.peek().at,
                          "at most " + std::to_string(MaximumDepth) + " levels of nesting"};
    }
    ~Nesting() { --parser.depth_; }
    Parser& parser;
  };
  int add(ExpressionNode node) {
    if (nodes_.size() == MaximumNodes)
      throw SyntaxError{peek().at,
                        "at most " + std::to_string(MaximumNodes) + " operands and operators"};
    nodes_.push_back(std::move(node));
    return static_cast<int>(nodes_.size() - 1);
  }
  int binary(Op op, int left, int right) { return add({op, 0.0, {}, {}, left, right}); }

  int orRule() {
    int left = andRule();
    while (accept("||"))
      left = binary(Op::Or, left, andRule());
    return left;
  }
  int andRule() {
    int left = notRule();
    while (accept("&&"))
      left = binary(Op::And, left, notRule());
    return left;
  }
  int notRule() {
    const Nesting nesting(*this);
    if (accept("!"))
      return binary(Op::Not, notRule(), -1);
    return comparison();
  }
  int comparison() {
    const int left = sum();
    static const std::pair<const char*, Op> operators[] = {
        {"==", Op::Equal},        {"!=", Op::NotEqual}, {"<=", Op::LessEqual},
        {">=", Op::GreaterEqual}, {"<", Op::Less},      {">", Op::Greater}};
    for (const auto& [symbol, op] : operators)
      if (accept(symbol))
        return binary(op, left, sum());
    if (acceptName("in"))
      return inList(left);
    return left;
  }
  int inList(int left) {
    if (!accept("["))
      fail("\"[\" after \"in\"");
    ExpressionNode node{Op::In, 0.0, {}, {}, left, -1};
    do {
      const double sign = accept("-") ? -1.0 : 1.0;
      if (peek().kind != Token::Number)
        fail("a number in the list");
      node.list.push_back(sign * tokens_[next_++].number);
    } while (accept(","));
    if (!accept("]"))
      fail("\",\" or \"]\" in the list");
    return add(std::move(node));
  }
  int sum() {
    int left = product();
    for (;;) {
      if (accept("+"))
        left = binary(Op::Add, left, product());
      else if (accept("-"))
        left = binary(Op::Subtract, left, product());
      else
        return left;
    }
  }
  int product() {
    int left = unary();
    for (;;) {
      if (accept("*"))
        left = binary(Op::Multiply, left, unary());
      else if (accept("/"))
        left = binary(Op::Divide, left, unary());
      else
        return left;
    }
  }
  int unary() {
    const Nesting nesting(*this);
    if (accept("-"))
      return binary(Op::Negate, unary(), -1);
    if (accept("+"))
      return unary();
    return primary();
  }
  int primary() {
    const Token& t = peek();
    if (t.kind == Token::Number) {
      ++next_;
      return add({Op::Number, t.number, {}, {}, -1, -1});
    }
    if (t.kind == Token::Name && t.text != "in") {
      ++next_;
      return add({Op::Field, 0.0, t.text, {}, -1, -1});
    }
    if (accept("(")) {
      const Nesting nesting(*this);
      const int inner = orRule();
      if (!accept(")"))
        fail("\")\"");
      return inner;
    }
    fail("a number, a field, \"(\", \"-\" or \"!\"");
  }

  std::vector<Token> tokens_;
  std::size_t next_ = 0;
  int depth_ = 0;
  std::vector<ExpressionNode>& nodes_;
};

// X, Y and Z: the component of the positions they name, else -1.
int axisOf(const std::string& name) {
  if (name == "X")
    return 0;
  if (name == "Y")
    return 1;
  if (name == "Z")
    return 2;
  return -1;
}

// Where the values of a field's leaf lie for one fragment: every stride bytes from bytes, as the
// scalar kind.
struct Source {
  const std::uint8_t* bytes = nullptr;
  std::size_t stride = 0;
  Tressel::ScalarKind kind = Tressel::ScalarKind::Float64;
};

double truth(double v) {
  return (v < 0.0 || v > 0.0) ? 1.0 : 0.0;
}

constexpr std::size_t Block = 1024;

// Evaluates node k over the points [begin, begin + n) into out; each node has its block of
// scratch (Block values per node), so that an operator's operands are both at hand.
void evaluateNode(const std::vector<ExpressionNode>& nodes, const std::vector<Source>& sources,
                  int k, std::size_t begin, std::size_t n, double* scratch) {
  const ExpressionNode& node = nodes[static_cast<std::size_t>(k)];
  double* out = scratch + static_cast<std::size_t>(k) * Block;
  if (node.op == Op::Number) {
    std::fill(out, out + n, node.number);
    return;
  }
  if (node.op == Op::Field) {
    const Source& s = sources[static_cast<std::size_t>(k)];
    Tressel::withScalar(s.kind, [&](auto zero) {
      using T = decltype(zero);
      const std::uint8_t* from = s.bytes + begin * s.stride;
      for (std::size_t i = 0; i < n; ++i) {
        T v;
        std::memcpy(&v, from + i * s.stride, sizeof v);
        out[i] = static_cast<double>(v);
      }
      return 0;
    });
    return;
  }
  evaluateNode(nodes, sources, node.left, begin, n, scratch);
  const double* a = scratch + static_cast<std::size_t>(node.left) * Block;
  if (node.right >= 0)
    evaluateNode(nodes, sources, node.right, begin, n, scratch);
  const double* b = node.right >= 0 ? scratch + static_cast<std::size_t>(node.right) * Block : a;
  const auto each = [&](auto f) {
    for (std::size_t i = 0; i < n; ++i)
      out[i] = f(a[i], b[i]);
  };
  switch (node.op) {
  case Op::Negate:
    return each([](double x, double) { return -x; });
  case Op::Not:
    return each([](double x, double) { return 1.0 - truth(x); });
  case Op::Add:
    return each([](double x, double y) { return x + y; });
  case Op::Subtract:
    return each([](double x, double y) { return x - y; });
  case Op::Multiply:
    return each([](double x, double y) { return x * y; });
  case Op::Divide:
    return each([](double x, double y) { return x / y; });
  case Op::Equal:
    return each([](double x, double y) { return x == y ? 1.0 : 0.0; });
  case Op::NotEqual:
    return each([](double x, double y) { return x != y ? 1.0 : 0.0; });
  case Op::Less:
    return each([](double x, double y) { return x < y ? 1.0 : 0.0; });
  case Op::LessEqual:
    return each([](double x, double y) { return x <= y ? 1.0 : 0.0; });
  case Op::Greater:
    return each([](double x, double y) { return x > y ? 1.0 : 0.0; });
  case Op::GreaterEqual:
    return each([](double x, double y) { return x >= y ? 1.0 : 0.0; });
  case Op::And:
    return each([](double x, double y) { return truth(x) * truth(y); });
  case Op::Or:
    return each([](double x, double y) { return std::max(truth(x), truth(y)); });
  case Op::In:
    std::fill(out, out + n, 0.0);
    for (const double v : node.list)
      for (std::size_t i = 0; i < n; ++i)
        out[i] = (a[i] == v) ? 1.0 : out[i];
    return;
  case Op::Number:
  case Op::Field:
    break;
  }
}

// The names of the numeric one-component fields of a grid, for a message.
std::string fieldNames(const Tressel::Grid& grid) {
  std::string names;
  if (const auto rep = grid.getCartesianRepresentation(Tressel::StandardCartesianChart3D))
    for (const auto& [id, field] : rep->snapshot())
      if (id->Name() != Tressel::PositionsFieldName)
        names += (names.empty() ? "" : ", ") + id->Name();
  return names.empty() ? "X, Y, Z" : "X, Y, Z, " + names;
}

} // namespace

Expression::Expression(std::string text) : text_(std::move(text)) {
  try {
    Parser(text_, nodes_).parseAll();
  } catch (const SyntaxError& e) {
    nodes_.clear();
    errorColumn_ = e.at + 1;
    error_ = "column " + std::to_string(errorColumn_) + ": " + e.what;
  }
}

std::vector<std::string> Expression::fields() const {
  std::vector<std::string> names;
  for (const ExpressionNode& node : nodes_)
    if (node.op == Op::Field && std::find(names.begin(), names.end(), node.field) == names.end())
      names.push_back(node.field);
  return names;
}

std::string Expression::problemWith(const StrongPtr<Grid>& grid) const {
  if (!error_.empty())
    return "\"" + text_ + "\": " + error_;
  for (const std::string& name : fields()) {
    if (axisOf(name) >= 0)
      continue;
    const auto field = findOptionalField(grid, name);
    if (!field)
      return "\"" + text_ + "\": unknown field \"" + name + "\" (the cloud has " +
             fieldNames(*grid) + ")";
    const auto* type = field->getElementType();
    if (!type || type->components() != 1 || type->scalar() == Tressel::ScalarKind::Opaque)
      return "\"" + text_ + "\": field \"" + name + "\" holds " +
             (type ? type->name() : std::string("no")) + " elements, not single numbers";
  }
  return {};
}

template <class Sink>
bool Expression::evaluate(const StrongPtr<Grid>& grid, const Tressel::FragmentID& id,
                          Sink&& sink) const {
  const auto positions = grid->CartesianPositions();
  const auto xyz = positions ? positions->getData(id) : nullptr;
  if (nodes_.empty() || !xyz)
    return false;
  const std::size_t n = xyz->nElements();
  std::vector<Source> sources(nodes_.size());
  for (std::size_t k = 0; k < nodes_.size(); ++k) {
    if (nodes_[k].op != Op::Field)
      continue;
    const int axis = axisOf(nodes_[k].field);
    const auto field = axis >= 0 ? positions : findOptionalField(grid, nodes_[k].field);
    const auto data = field ? field->getData(id) : nullptr;
    if (!data || data->nElements() != n || data->elementType().components() != (axis >= 0 ? 3 : 1))
      return false;
    const auto* bytes = static_cast<const std::uint8_t*>(data->elementBytes());
    const auto kind = data->elementType().scalar();
    sources[k] = {bytes +
                      (axis >= 0 ? static_cast<std::size_t>(axis) * Tressel::scalarSize(kind) : 0),
                  data->elementType().size(), kind};
  }
  std::vector<double> scratch(nodes_.size() * Block);
  const int root = static_cast<int>(nodes_.size() - 1);
  for (std::size_t begin = 0; begin < n; begin += Block) {
    const std::size_t size = std::min(Block, n - begin);
    evaluateNode(nodes_, sources, root, begin, size, scratch.data());
    sink(begin, size, scratch.data() + static_cast<std::size_t>(root) * Block);
  }
  return true;
}

bool Expression::values(const StrongPtr<Grid>& grid, const Tressel::FragmentID& id,
                        std::vector<double>& out) const {
  out.clear();
  return evaluate(grid, id, [&](std::size_t, std::size_t n, const double* v) {
    out.insert(out.end(), v, v + n);
  });
}

bool Expression::mask(const StrongPtr<Grid>& grid, const Tressel::FragmentID& id,
                      std::vector<unsigned char>& out) const {
  out.clear();
  return evaluate(grid, id, [&](std::size_t begin, std::size_t n, const double* v) {
    out.resize(begin + n);
    for (std::size_t i = 0; i < n; ++i)
      out[begin + i] = static_cast<unsigned char>(truth(v[i]));
  });
}

} // namespace Quorvel
