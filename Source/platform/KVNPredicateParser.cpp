#include "KVNPredicate.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <string>

// Text to predicate: a lexer that reads one token ahead, and a parser that
// keeps its nesting on an explicit stack, so that hostile text gives an error
// instead of a stack overflow. The grammar, NOT binding tightest:
//
//   or      := and (("OR" | "||") and)*
//   and     := not (("AND" | "&&") not)*
//   not     := ("NOT" | "!") not | primary
//   primary := "(" or ")" | TRUEPREDICATE | FALSEPREDICATE | expr operator options? expr

namespace {

using Operator = KVNComparisonPredicate::Operator;

enum class TokenType {
    End,
    Identifier, // text holds the name; escaped when written "#name"
    Number,
    String,
    Format, // conversion holds '@', 'K' or 'd'
    LParen,
    RParen,
    LBrace,
    RBrace,
    LBracket,
    RBracket,
    Comma,
    Dot,
    Equal,
    NotEqual,
    Less,
    LessOrEqual,
    Greater,
    GreaterOrEqual,
    AndAnd,
    OrOr,
    Bang,
};

struct Token {
    TokenType type = TokenType::End;
    int position = 0;
    int length = 0;
    QString text;
    KVNValue value;
    bool escaped = false;
    char conversion = 0;
};

// Parse failures unwind to parse(); nothing outside this file sees them.
struct ParseFailure {
    QString message;
    int position;
};

bool isIdentifierStart(char32_t c)
{
    return c == U'_' || QChar::isLetter(c);
}

bool isIdentifierPart(char32_t c)
{
    return c == U'_' || c == U'$' || QChar::isLetterOrNumber(c) || QChar::isMark(c);
}

int hexValue(QChar c)
{
    const char16_t u = c.unicode();
    if (u >= u'0' && u <= u'9')
        return u - u'0';
    if (u >= u'a' && u <= u'f')
        return u - u'a' + 10;
    if (u >= u'A' && u <= u'F')
        return u - u'A' + 10;
    return -1;
}

// GCC 12 with the sanitizers misreads the variant move inside KVNValue as a
// read of an uninitialised QString; the value is an integer or a double.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
[[gnu::noinline]] KVNValue integerValue(int64_t value)
{
    return KVNValue::fromInteger(value);
}

[[gnu::noinline]] KVNValue realValue(double value)
{
    return KVNValue::fromDouble(value);
}
#pragma GCC diagnostic pop

bool isDigit(QChar c)
{
    return c.unicode() >= u'0' && c.unicode() <= u'9';
}

class Lexer {
public:
    explicit Lexer(const QString &text) : text_(text), size_(int(text.size())) {}

    const Token &peek()
    {
        if (!hasPeeked_) {
            peeked_ = scan();
            hasPeeked_ = true;
        }
        return peeked_;
    }

    Token next()
    {
        peek();
        hasPeeked_ = false;
        return std::move(peeked_);
    }

    int size() const { return size_; }

    // A short quote of the text at a token, for messages.
    QString quote(const Token &token) const
    {
        if (token.type == TokenType::End)
            return QStringLiteral("the end of the text");
        QString piece = text_.mid(token.position, std::min(token.length, 24));
        if (token.length > 24)
            piece += QStringLiteral("…");
        return QLatin1Char('\'') + piece + QLatin1Char('\'');
    }

private:
    char32_t codePointAt(int i, int *units) const
    {
        const QChar c = text_[i];
        if (c.isHighSurrogate() && i + 1 < size_ && text_[i + 1].isLowSurrogate()) {
            *units = 2;
            return QChar::surrogateToUcs4(c, text_[i + 1]);
        }
        *units = 1;
        return c.unicode();
    }

    Token make(TokenType type, int start, int length)
    {
        Token token;
        token.type = type;
        token.position = start;
        token.length = length;
        pos_ = start + length;
        return token;
    }

    Token scan()
    {
        while (pos_ < size_ && text_[pos_].isSpace())
            ++pos_;
        if (pos_ >= size_)
            return make(TokenType::End, size_, 0);

        const int start = pos_;
        const QChar c = text_[pos_];
        const QChar n = pos_ + 1 < size_ ? text_[pos_ + 1] : QChar();
        switch (c.unicode()) {
        case u'(':
            return make(TokenType::LParen, start, 1);
        case u')':
            return make(TokenType::RParen, start, 1);
        case u'{':
            return make(TokenType::LBrace, start, 1);
        case u'}':
            return make(TokenType::RBrace, start, 1);
        case u'[':
            return make(TokenType::LBracket, start, 1);
        case u']':
            return make(TokenType::RBracket, start, 1);
        case u',':
            return make(TokenType::Comma, start, 1);
        case u'.':
            return make(TokenType::Dot, start, 1);
        case u'=':
            if (n == u'=')
                return make(TokenType::Equal, start, 2);
            if (n == u'<')
                return make(TokenType::LessOrEqual, start, 2);
            if (n == u'>')
                return make(TokenType::GreaterOrEqual, start, 2);
            return make(TokenType::Equal, start, 1);
        case u'!':
            if (n == u'=')
                return make(TokenType::NotEqual, start, 2);
            return make(TokenType::Bang, start, 1);
        case u'<':
            if (n == u'=')
                return make(TokenType::LessOrEqual, start, 2);
            if (n == u'>')
                return make(TokenType::NotEqual, start, 2);
            return make(TokenType::Less, start, 1);
        case u'>':
            if (n == u'=')
                return make(TokenType::GreaterOrEqual, start, 2);
            return make(TokenType::Greater, start, 1);
        case u'&':
            if (n == u'&')
                return make(TokenType::AndAnd, start, 2);
            throw ParseFailure{QStringLiteral("a single '&' is not an operator; write '&&' or AND"), start};
        case u'|':
            if (n == u'|')
                return make(TokenType::OrOr, start, 2);
            throw ParseFailure{QStringLiteral("a single '|' is not an operator; write '||' or OR"), start};
        case u'"':
        case u'\'':
            return scanString();
        case u'%':
            return scanFormat();
        default:
            break;
        }
        if (isDigit(c) || (c == u'-' && isDigit(n)))
            return scanNumber();
        int units = 0;
        if (c == u'#') {
            if (pos_ + 1 < size_ && isIdentifierStart(codePointAt(pos_ + 1, &units))) {
                ++pos_;
                Token token = scanIdentifier(start);
                token.escaped = true;
                return token;
            }
            throw ParseFailure{QStringLiteral("'#' must be followed by a key name"), start};
        }
        if (isIdentifierStart(codePointAt(pos_, &units)))
            return scanIdentifier(start);
        throw ParseFailure{QStringLiteral("unexpected character '%1'").arg(text_.mid(start, units)), start};
    }

    Token scanIdentifier(int start)
    {
        const int nameStart = pos_;
        int units = 0;
        while (pos_ < size_ && isIdentifierPart(codePointAt(pos_, &units)))
            pos_ += units;
        Token token = make(TokenType::Identifier, start, pos_ - start);
        token.text = text_.mid(nameStart, pos_ - nameStart);
        return token;
    }

    Token scanString()
    {
        const int start = pos_;
        const QChar quote = text_[pos_++];
        QString value;
        while (true) {
            if (pos_ >= size_)
                throw ParseFailure{QStringLiteral("unterminated string: no closing %1").arg(quote), start};
            const QChar c = text_[pos_];
            if (c == quote) {
                ++pos_;
                break;
            }
            if (c == u'%' && pos_ + 1 < size_ && text_[pos_ + 1] == u'%') {
                value += QLatin1Char('%');
                pos_ += 2;
                continue;
            }
            if (c != u'\\') {
                value += c;
                ++pos_;
                continue;
            }
            if (pos_ + 1 >= size_)
                throw ParseFailure{QStringLiteral("unterminated string: no closing %1").arg(quote), start};
            const QChar e = text_[pos_ + 1];
            switch (e.unicode()) {
            case u'"':
                value += QLatin1Char('"');
                break;
            case u'\'':
                value += QLatin1Char('\'');
                break;
            case u'\\':
                value += QLatin1Char('\\');
                break;
            case u'n':
                value += QLatin1Char('\n');
                break;
            case u't':
                value += QLatin1Char('\t');
                break;
            case u'r':
                value += QLatin1Char('\r');
                break;
            case u'u': {
                int code = 0;
                for (int k = 0; k < 4; ++k) {
                    const int digit = pos_ + 2 + k < size_ ? hexValue(text_[pos_ + 2 + k]) : -1;
                    if (digit < 0)
                        throw ParseFailure{QStringLiteral("\\u must be followed by four hexadecimal digits"), pos_};
                    code = code * 16 + digit;
                }
                value += QChar(char16_t(code));
                pos_ += 6;
                continue;
            }
            default:
                // Kept as written, so that LIKE sees "\*" and "\?" as escaped wildcards.
                value += QLatin1Char('\\');
                value += e;
                break;
            }
            pos_ += 2;
        }
        Token token = make(TokenType::String, start, pos_ - start);
        token.value = KVNValue::fromString(value);
        return token;
    }

    Token scanFormat()
    {
        const int start = pos_;
        static const char *const integerForms[] = {"lld", "llu", "ld", "lu", "qd", "qu", "d", "i", "u"};
        const QStringView rest = QStringView(text_).mid(start + 1);
        if (rest.startsWith(u'@') || rest.startsWith(u'K')) {
            Token token = make(TokenType::Format, start, 2);
            token.conversion = char(rest.front().unicode());
            return token;
        }
        for (const char *form : integerForms) {
            if (rest.startsWith(QLatin1String(form))) {
                Token token = make(TokenType::Format, start, 1 + int(qstrlen(form)));
                token.conversion = 'd';
                return token;
            }
        }
        if (rest.startsWith(u'%'))
            throw ParseFailure{QStringLiteral("'%%' stands for '%' inside a quoted string only"), start};
        if (rest.isEmpty())
            throw ParseFailure{QStringLiteral("'%' at the end of the text is not a format specifier"), start};
        throw ParseFailure{QStringLiteral("unknown format specifier '%%%1'").arg(rest.front()), start};
    }

    Token scanNumber()
    {
        const int start = pos_;
        int i = pos_;
        const bool negative = text_[i] == u'-';
        if (negative)
            ++i;
        Token token;
        if (text_[i] == u'0' && i + 2 < size_ && (text_[i + 1] == u'x' || text_[i + 1] == u'X') &&
            hexValue(text_[i + 2]) >= 0) {
            i += 2;
            uint64_t magnitude = 0;
            bool overflow = false;
            for (; i < size_ && hexValue(text_[i]) >= 0; ++i) {
                if (magnitude > (std::numeric_limits<uint64_t>::max() >> 4))
                    overflow = true;
                magnitude = (magnitude << 4) | uint64_t(hexValue(text_[i]));
            }
            const uint64_t limit = negative ? uint64_t(1) << 63 : (uint64_t(1) << 63) - 1;
            if (overflow || magnitude > limit)
                throw ParseFailure{QStringLiteral("hexadecimal number out of range"), start};
            token = make(TokenType::Number, start, i - start);
            token.value = integerValue(negative ? int64_t(0 - magnitude) : int64_t(magnitude));
        } else {
            bool real = false;
            while (i < size_ && isDigit(text_[i]))
                ++i;
            if (i + 1 < size_ && text_[i] == u'.' && isDigit(text_[i + 1])) {
                real = true;
                i += 2;
                while (i < size_ && isDigit(text_[i]))
                    ++i;
            }
            if (i < size_ && (text_[i] == u'e' || text_[i] == u'E')) {
                int j = i + 1;
                if (j < size_ && (text_[j] == u'+' || text_[j] == u'-'))
                    ++j;
                if (j < size_ && isDigit(text_[j])) {
                    real = true;
                    i = j;
                    while (i < size_ && isDigit(text_[i]))
                        ++i;
                }
            }
            token = make(TokenType::Number, start, i - start);
            token.value = numberValue(text_.mid(start, i - start).toLatin1(), real);
        }
        int units = 0;
        if (pos_ < size_ && isIdentifierPart(codePointAt(pos_, &units)))
            throw ParseFailure{QStringLiteral("malformed number"), start};
        return token;
    }

    static KVNValue numberValue(const QByteArray &digits, bool real)
    {
        const char *first = digits.constData();
        const char *last = first + digits.size();
        if (!real) {
            int64_t integer = 0;
            const auto result = std::from_chars(first, last, integer);
            if (result.ec == std::errc() && result.ptr == last)
                return integerValue(integer);
        }
        double value = 0;
        const auto result = std::from_chars(first, last, value);
        if (result.ec == std::errc::result_out_of_range) {
            // Too large reads as infinity, too small as zero, as the literal's value would.
            value = decimalExponent(digits) < 0 ? 0.0 : std::numeric_limits<double>::infinity();
            if (digits.startsWith('-'))
                value = -value;
        }
        return realValue(value);
    }

    // The power of ten of the first significant digit of a literal.
    static int64_t decimalExponent(const QByteArray &digits)
    {
        qsizetype ePos = digits.indexOf('e');
        if (ePos < 0)
            ePos = digits.indexOf('E');
        QByteArray mantissa = ePos < 0 ? digits : digits.left(ePos);
        mantissa.replace("-", "");
        int64_t exponent = 0;
        if (ePos >= 0) {
            const bool negative = digits.at(ePos + 1) == '-';
            for (qsizetype i = ePos + 1; i < digits.size(); ++i) {
                if (digits.at(i) >= '0' && digits.at(i) <= '9')
                    exponent = std::min<int64_t>(exponent * 10 + (digits.at(i) - '0'), 1'000'000'000);
            }
            if (negative)
                exponent = -exponent;
        }
        const qsizetype dot = mantissa.indexOf('.') < 0 ? mantissa.size() : mantissa.indexOf('.');
        qsizetype firstSignificant = 0;
        while (firstSignificant < mantissa.size() &&
               (mantissa.at(firstSignificant) < '1' || mantissa.at(firstSignificant) > '9'))
            ++firstSignificant;
        return exponent + (firstSignificant < dot ? dot - firstSignificant - 1 : dot - firstSignificant);
    }

    const QString &text_;
    const int size_;
    int pos_ = 0;
    Token peeked_;
    bool hasPeeked_ = false;
};

class Parser {
public:
    Parser(const QString &text, const QList<KVNValue> &arguments) : lexer_(text), arguments_(arguments) {}

    KVNPredicatePtr parseAll()
    {
        if (lexer_.peek().type == TokenType::End)
            throw ParseFailure{QStringLiteral("empty predicate"), lexer_.size()};
        KVNPredicatePtr predicate = parsePredicate();
        if (nextArgument_ < arguments_.size())
            throw ParseFailure{
                QStringLiteral("%1 arguments given but the format uses %2").arg(arguments_.size()).arg(nextArgument_),
                lexer_.size()};
        return predicate;
    }

private:
    bool isKeyword(const Token &token, const char *word) const
    {
        return token.type == TokenType::Identifier && !token.escaped &&
               token.text.compare(QLatin1String(word), Qt::CaseInsensitive) == 0;
    }

    // One open parenthesis (or the whole text): the OR terms so far, the AND
    // terms of the current OR term, and the NOTs waiting for the next operand.
    struct Group {
        int openPosition = -1;
        int pendingNots = 0;
        std::vector<KVNPredicatePtr> orTerms;
        std::vector<KVNPredicatePtr> andTerms;

        void endOrTerm()
        {
            orTerms.push_back(KVNPredicate::andPredicateWithSubpredicates(andTerms));
            andTerms.clear();
        }
        KVNPredicatePtr finish()
        {
            endOrTerm();
            return KVNPredicate::orPredicateWithSubpredicates(orTerms);
        }
    };

    // Groups live on an explicit stack rather than the call stack, so hostile
    // nesting costs heap, not stack; depth counts open parentheses plus
    // waiting NOTs and is bounded so that the tree stays shallow enough to
    // render and evaluate.
    KVNPredicatePtr parsePredicate()
    {
        std::vector<Group> groups(1);
        int depth = 0;
        while (true) {
            const Token &token = lexer_.peek();
            if (token.type == TokenType::Bang || isKeyword(token, "NOT")) {
                const int position = token.position;
                lexer_.next();
                if (++depth > KVNPredicate::maxNestingDepth())
                    throw tooDeep(position);
                ++groups.back().pendingNots;
                continue;
            }
            if (token.type == TokenType::LParen) {
                const int position = token.position;
                lexer_.next();
                if (++depth > KVNPredicate::maxNestingDepth())
                    throw tooDeep(position);
                groups.emplace_back().openPosition = position;
                continue;
            }
            KVNPredicatePtr operand = parseSimplePredicate();
            // A closed group is an operand of the one around it, so keep closing.
            while (true) {
                Group &group = groups.back();
                depth -= group.pendingNots;
                for (; group.pendingNots > 0; --group.pendingNots)
                    operand = KVNPredicate::notPredicateWithSubpredicate(operand);
                group.andTerms.push_back(std::move(operand));

                const Token &after = lexer_.peek();
                if (after.type == TokenType::AndAnd || isKeyword(after, "AND")) {
                    lexer_.next();
                    break;
                }
                if (after.type == TokenType::OrOr || isKeyword(after, "OR")) {
                    lexer_.next();
                    group.endOrTerm();
                    break;
                }
                if (after.type == TokenType::RParen) {
                    if (groups.size() == 1)
                        throw ParseFailure{QStringLiteral("unbalanced ')': no '(' is open"), after.position};
                    lexer_.next();
                    operand = group.finish();
                    groups.pop_back();
                    --depth;
                    continue;
                }
                if (groups.size() > 1)
                    throw ParseFailure{QStringLiteral("expected ')' to close the '(' at %1, found %2")
                                           .arg(group.openPosition)
                                           .arg(lexer_.quote(after)),
                                       after.position};
                if (after.type != TokenType::End)
                    throw ParseFailure{
                        QStringLiteral("unexpected %1 after a complete predicate").arg(lexer_.quote(after)),
                        after.position};
                return group.finish();
            }
        }
    }

    ParseFailure tooDeep(int position) const
    {
        return ParseFailure{QStringLiteral("nesting deeper than %1 levels").arg(KVNPredicate::maxNestingDepth()),
                            position};
    }

    KVNPredicatePtr parseSimplePredicate()
    {
        const Token &token = lexer_.peek();
        if (isKeyword(token, "TRUEPREDICATE")) {
            lexer_.next();
            return KVNPredicate::truePredicate();
        }
        if (isKeyword(token, "FALSEPREDICATE")) {
            lexer_.next();
            return KVNPredicate::falsePredicate();
        }
        return parseComparison();
    }

    KVNPredicatePtr parseComparison()
    {
        const int leftPosition = lexer_.peek().position;
        KVNExpression left = parseExpression(QStringLiteral("a predicate"));
        if (left.kind() == KVNExpression::Kind::Aggregate)
            throw ParseFailure{QStringLiteral("a list {…} can only stand on the right of IN"), leftPosition};

        const Token opToken = lexer_.next();
        const Operator op = comparisonOperator(opToken);
        const unsigned options = parseOptions();

        const int rightPosition = lexer_.peek().position;
        KVNExpression right =
            parseExpression(QStringLiteral("a value or key path after %1").arg(lexer_.quote(opToken)));
        if (right.kind() == KVNExpression::Kind::Aggregate && op != Operator::In)
            throw ParseFailure{QStringLiteral("a list {…} can only stand on the right of IN"), rightPosition};

        QString message;
        KVNPredicatePtr predicate =
            KVNComparisonPredicate::make(std::move(left), op, std::move(right), options, &message);
        if (!predicate)
            throw ParseFailure{message, rightPosition};
        return predicate;
    }

    Operator comparisonOperator(const Token &token) const
    {
        switch (token.type) {
        case TokenType::Equal:
            return Operator::Equal;
        case TokenType::NotEqual:
            return Operator::NotEqual;
        case TokenType::Less:
            return Operator::Less;
        case TokenType::LessOrEqual:
            return Operator::LessOrEqual;
        case TokenType::Greater:
            return Operator::Greater;
        case TokenType::GreaterOrEqual:
            return Operator::GreaterOrEqual;
        case TokenType::Identifier: {
            static const std::pair<const char *, Operator> words[] = {
                {"LIKE", Operator::Like},         {"BEGINSWITH", Operator::BeginsWith},
                {"ENDSWITH", Operator::EndsWith}, {"CONTAINS", Operator::Contains},
                {"MATCHES", Operator::Matches},   {"IN", Operator::In},
            };
            for (const auto &[word, op] : words) {
                if (isKeyword(token, word))
                    return op;
            }
            break;
        }
        case TokenType::End:
            throw ParseFailure{QStringLiteral("expected a comparison operator, found the end of the text"),
                               token.position};
        default:
            break;
        }
        throw ParseFailure{QStringLiteral("unknown operator %1").arg(lexer_.quote(token)), token.position};
    }

    unsigned parseOptions()
    {
        if (lexer_.peek().type != TokenType::LBracket)
            return KVNComparisonPredicate::NoOptions;
        const Token open = lexer_.next();
        const Token letters = lexer_.next();
        unsigned options = 0;
        if (letters.type != TokenType::Identifier || letters.escaped)
            throw ParseFailure{QStringLiteral("expected options such as [c], [d] or [cd]"), letters.position};
        for (QChar letter : letters.text) {
            const char16_t lower = letter.toLower().unicode();
            if (lower == u'c')
                options |= KVNComparisonPredicate::CaseInsensitive;
            else if (lower == u'd')
                options |= KVNComparisonPredicate::DiacriticInsensitive;
            else
                throw ParseFailure{QStringLiteral("unknown comparison option '%1'; use c or d").arg(letter),
                                   letters.position};
        }
        const Token close = lexer_.next();
        if (close.type != TokenType::RBracket)
            throw ParseFailure{QStringLiteral("expected ']' to close the options at %1").arg(open.position),
                               close.position};
        return options;
    }

    const KVNValue &takeArgument(const Token &token)
    {
        if (nextArgument_ >= arguments_.size())
            throw ParseFailure{QStringLiteral("too few arguments: %1 has none (%2 given)")
                                   .arg(lexer_.quote(token))
                                   .arg(arguments_.size()),
                               token.position};
        return arguments_[nextArgument_++];
    }

    KVNExpression parseExpression(const QString &what)
    {
        const Token token = lexer_.next();
        switch (token.type) {
        case TokenType::String:
        case TokenType::Number:
            return KVNExpression::constant(token.value);
        case TokenType::Format:
            return formatArgument(token);
        case TokenType::LBrace:
            return parseAggregate(token);
        case TokenType::Identifier:
            return identifierExpression(token);
        case TokenType::End:
            throw ParseFailure{QStringLiteral("expected %1, found the end of the text").arg(what), token.position};
        default:
            throw ParseFailure{QStringLiteral("expected %1, found %2").arg(what, lexer_.quote(token)), token.position};
        }
    }

    KVNExpression formatArgument(const Token &token)
    {
        const int index = nextArgument_;
        const KVNValue &argument = takeArgument(token);
        if (token.conversion == '@')
            return KVNExpression::constant(argument);
        if (token.conversion == 'd') {
            if (argument.type() == KVNValue::Type::Integer)
                return KVNExpression::constant(argument);
            if (argument.type() == KVNValue::Type::Bool)
                return KVNExpression::constant(KVNValue::fromInteger(argument.toBool() ? 1 : 0));
            if (argument.type() == KVNValue::Type::Double) {
                const double d = argument.toDouble();
                if (std::trunc(d) == d && d >= -9223372036854775808.0 && d < 9223372036854775808.0)
                    return KVNExpression::constant(KVNValue::fromInteger(int64_t(d)));
            }
            throw ParseFailure{
                QStringLiteral("argument %1 for %2 is not an integer").arg(index + 1).arg(lexer_.quote(token)),
                token.position};
        }
        // %K
        std::optional<KVNExpression> path;
        if (argument.type() == KVNValue::Type::String)
            path = KVNExpression::keyPath(QStringView(argument.toString()));
        if (!path)
            throw ParseFailure{QStringLiteral("argument %1 for %K is not a key path").arg(index + 1), token.position};
        return continueKeyPath(path->keyPathComponents());
    }

    KVNExpression identifierExpression(const Token &token)
    {
        if (!token.escaped) {
            if (isKeyword(token, "nil") || isKeyword(token, "NULL"))
                return KVNExpression::constant(KVNValue());
            if (isKeyword(token, "YES") || isKeyword(token, "TRUE"))
                return KVNExpression::constant(KVNValue::fromBool(true));
            if (isKeyword(token, "NO") || isKeyword(token, "FALSE"))
                return KVNExpression::constant(KVNValue::fromBool(false));
            if (isKeyword(token, "SELF")) {
                if (lexer_.peek().type != TokenType::Dot)
                    return KVNExpression::self();
                return continueKeyPath({});
            }
            if (isKeyword(token, "DATE") && lexer_.peek().type == TokenType::LParen)
                return parseDate();
            if (KVNExpression::isReservedWord(token.text))
                throw ParseFailure{QStringLiteral("%1 is a reserved word; write #%2 to use it as a key")
                                       .arg(lexer_.quote(token), token.text),
                                   token.position};
        }
        return continueKeyPath({token.text});
    }

    // ".name" steps after the first; a reserved word after a dot is a key.
    KVNExpression continueKeyPath(QStringList components)
    {
        while (lexer_.peek().type == TokenType::Dot) {
            lexer_.next();
            const Token key = lexer_.next();
            if (key.type != TokenType::Identifier)
                throw ParseFailure{QStringLiteral("expected a key after '.', found %1").arg(lexer_.quote(key)),
                                   key.position};
            components.append(key.text);
        }
        return *KVNExpression::keyPath(components);
    }

    KVNExpression parseAggregate(const Token &open)
    {
        std::vector<KVNExpression> elements;
        if (lexer_.peek().type == TokenType::RBrace) {
            lexer_.next();
            return KVNExpression::aggregate(std::move(elements));
        }
        while (true) {
            const Token &at = lexer_.peek();
            const int position = at.position;
            if (at.type == TokenType::LBrace)
                throw ParseFailure{QStringLiteral("lists cannot be nested"), position};
            KVNExpression element = parseExpression(QStringLiteral("a constant in the list"));
            if (element.kind() != KVNExpression::Kind::Constant)
                throw ParseFailure{QStringLiteral("a list {…} holds constants only"), position};
            elements.push_back(std::move(element));
            const Token separator = lexer_.next();
            if (separator.type == TokenType::RBrace)
                break;
            if (separator.type != TokenType::Comma)
                throw ParseFailure{QStringLiteral("expected ',' or '}' to continue the list at %1, found %2")
                                       .arg(open.position)
                                       .arg(lexer_.quote(separator)),
                                   separator.position};
        }
        return KVNExpression::aggregate(std::move(elements));
    }

    // DATE(seconds, nanoseconds): exact, so modification times round-trip.
    KVNExpression parseDate()
    {
        lexer_.next(); // '('
        const Token seconds = lexer_.next();
        const Token comma = lexer_.next();
        const Token nanoseconds = lexer_.next();
        const Token close = lexer_.next();
        const bool ok = seconds.type == TokenType::Number && seconds.value.type() == KVNValue::Type::Integer &&
                        comma.type == TokenType::Comma && nanoseconds.type == TokenType::Number &&
                        nanoseconds.value.type() == KVNValue::Type::Integer && nanoseconds.value.toInteger() >= 0 &&
                        nanoseconds.value.toInteger() <= std::numeric_limits<uint32_t>::max() &&
                        close.type == TokenType::RParen;
        if (!ok)
            throw ParseFailure{QStringLiteral("expected DATE(seconds, nanoseconds) with two integers"),
                               seconds.position};
        return KVNExpression::constant(
            KVNValue::fromDate(KVNDate{seconds.value.toInteger(), uint32_t(nanoseconds.value.toInteger())}));
    }

    Lexer lexer_;
    const QList<KVNValue> &arguments_;
    qsizetype nextArgument_ = 0;
};

} // namespace

KVNPredicateParseResult KVNPredicate::parse(const QString &format, const QList<KVNValue> &arguments)
{
    KVNPredicateParseResult result;
    try {
        Parser parser(format, arguments);
        result.predicate = parser.parseAll();
    } catch (const ParseFailure &failure) {
        result.predicate = nullptr;
        result.error = KVNPredicateError{failure.message, std::clamp(failure.position, 0, int(format.size()))};
    }
    return result;
}
