// Bounded string functions. One template per family; the overloads only
// choose the element types and the element conversion.
#include "libtb/TbStringUtils.h"

#include "libtb/TbDebug.h"

namespace {

// How one source element becomes one destination element.
template <typename TDst, typename TSrc>
struct CharConv;

template <typename T>
struct CharConv<T, T> {
    static T Do(T c) { return c; }
};

// Wide to narrow keeps the low 8 bits.
template <>
struct CharConv<char, wchar_t> {
    static char Do(wchar_t c) { return static_cast<char>(static_cast<unsigned char>(static_cast<unsigned int>(c) & 0xFFU)); }
};

// Narrow to wide: the byte value 0..255.
template <>
struct CharConv<wchar_t, char> {
    static wchar_t Do(char c) { return static_cast<wchar_t>(static_cast<unsigned char>(c)); }
};

// Narrow to 16-bit USB text sign-extends (0xE9 becomes 0xFFE9). Existing
// descriptors were produced this way, so the asymmetry is kept.
template <>
struct CharConv<unsigned short, char> {
    static unsigned short Do(char c) { return static_cast<unsigned short>(static_cast<signed char>(c)); }
};

template <typename T>
unsigned int Len(const T* str)
{
    unsigned int n = 0;
    while (str[n] != 0)
        n++;
    return n;
}

// Copies while source elements remain and one element is still free for the
// terminator; returns the terminator's position.
template <typename TDst, typename TSrc>
TDst* CopyBounded(TDst* d, TDst* destinationLimit, const TSrc* source)
{
    if (d >= destinationLimit)
        return d; // no room at all, not even for a terminator
    while (*source != 0 && d + 1 < destinationLimit)
        *d++ = CharConv<TDst, TSrc>::Do(*source++);
    *d = 0;
    return d;
}

template <typename TDst, typename TSrc>
TDst* LCopy(TDst* destination, TDst* destinationLimit, const TSrc* source)
{
    TB_ASSERT(destinationLimit>destination);
    return CopyBounded(destination, destinationLimit, source);
}

template <typename TDst, typename TSrc>
TDst* LCat(TDst* destination, TDst* destinationLimit, const TSrc* source)
{
    TB_ASSERT(destinationLimit>destination);
    if (destinationLimit <= destination)
        return destination;
    TDst* end = destination + Len(destination);
    return CopyBounded(end, destinationLimit, source);
}

template <typename TDst, typename TSrc>
unsigned int NCopy(TDst* destination, const TSrc* source, unsigned int maxChars)
{
    if (maxChars == 0) {
        TB_ASSERT(maxChars>0);
        destination[0] = 0;
        return 0;
    }
    unsigned int n = 0;
    while (source[n] != 0 && n < maxChars - 1) {
        destination[n] = CharConv<TDst, TSrc>::Do(source[n]);
        n++;
    }
    destination[n] = 0;
    return n;
}

template <typename TDst, typename TSrc>
unsigned int NCat(TDst* destination, const TSrc* source, unsigned int maxChars)
{
    unsigned int len = Len(destination);
    if (maxChars == 0) {
        TB_ASSERT(maxChars>0);
        destination[len] = 0;
        return len;
    }
    while (*source != 0 && len < maxChars - 1)
        destination[len++] = CharConv<TDst, TSrc>::Do(*source++);
    destination[len] = 0;
    return len;
}

template <typename T>
bool Equal(const T* s1, const T* s2)
{
    while (*s1 != 0 && *s1 == *s2) {
        s1++;
        s2++;
    }
    return *s1 == *s2;
}

template <typename T>
T ToUpper(T c)
{
    return (c >= 'a' && c <= 'z') ? static_cast<T>(c - 32) : c;
}

template <typename T>
T ToLower(T c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<T>(c + 32) : c;
}

template <typename T>
bool EqualIgnoreCase(const T* s1, const T* s2)
{
    while (*s1 != 0 || *s2 != 0) {
        if (ToUpper(*s1) != ToUpper(*s2))
            return false;
        s1++;
        s2++;
    }
    return true;
}

template <typename T>
unsigned int ReplaceChars(T* destination, const T* charSet, T newChar)
{
    unsigned int count = 0;
    for (T* p = destination; *p != 0; p++) {
        const T original = *p;
        // Every matching set entry counts, even when it names a character
        // that an earlier entry already matched.
        for (const T* c = charSet; *c != 0; c++) {
            if (original == *c) {
                *p = newChar;
                count++;
            }
        }
    }
    return count;
}

template <typename T>
bool IsWhiteSpace(T c)
{
    return (c >= 9 && c <= 13) || c == ' ';
}

template <typename T>
bool TrimBegin(T* destination)
{
    if (!IsWhiteSpace(destination[0]))
        return false;
    const T* src = destination;
    while (IsWhiteSpace(*src))
        src++;
    T* dst = destination;
    while (*src != 0)
        *dst++ = *src++;
    *dst = 0;
    return true;
}

template <typename T>
bool TrimEnd(T* destination)
{
    unsigned int len = Len(destination);
    if (len == 0 || !IsWhiteSpace(destination[len - 1]))
        return false;
    while (len > 0 && IsWhiteSpace(destination[len - 1]))
        destination[--len] = 0;
    return true;
}

template <typename T>
bool RemoveQuotes(T* destination, T quoteChar)
{
    unsigned int len = Len(destination);
    if (len < 2 || destination[0] != quoteChar || destination[len - 1] != quoteChar)
        return false;
    for (unsigned int i = 0; i + 2 < len; i++)
        destination[i] = destination[i + 1];
    destination[len - 2] = 0;
    return true;
}

template <typename T>
T* ToUpperString(T* s)
{
    for (T* p = s; *p != 0; p++)
        *p = ToUpper(*p);
    return s;
}

template <typename T>
T* ToLowerString(T* s)
{
    for (T* p = s; *p != 0; p++)
        *p = ToLower(*p);
    return s;
}

} // namespace

char* TbStringLCopy(char* destination, char* destinationLimit, const char* source)
{
    return LCopy(destination, destinationLimit, source);
}
wchar_t* TbStringLCopy(wchar_t* destination, wchar_t* destinationLimit, const wchar_t* source)
{
    return LCopy(destination, destinationLimit, source);
}
char* TbStringLCopy(char* destination, char* destinationLimit, const wchar_t* source)
{
    return LCopy(destination, destinationLimit, source);
}
wchar_t* TbStringLCopy(wchar_t* destination, wchar_t* destinationLimit, const char* source)
{
    return LCopy(destination, destinationLimit, source);
}

char* TbStringLCat(char* destination, char* destinationLimit, const char* source)
{
    return LCat(destination, destinationLimit, source);
}
wchar_t* TbStringLCat(wchar_t* destination, wchar_t* destinationLimit, const wchar_t* source)
{
    return LCat(destination, destinationLimit, source);
}
char* TbStringLCat(char* destination, char* destinationLimit, const wchar_t* source)
{
    return LCat(destination, destinationLimit, source);
}
wchar_t* TbStringLCat(wchar_t* destination, wchar_t* destinationLimit, const char* source)
{
    return LCat(destination, destinationLimit, source);
}

unsigned int TbStringNCopy(char* destination, const char* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}
unsigned int TbStringNCopy(wchar_t* destination, const wchar_t* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}
unsigned int TbStringNCopy(char* destination, const wchar_t* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}
unsigned int TbStringNCopy(wchar_t* destination, const char* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}
unsigned int TbStringNCopy(unsigned short* destination, const unsigned short* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}
unsigned int TbStringNCopy(unsigned short* destination, const char* source, unsigned int maxChars)
{
    return NCopy(destination, source, maxChars);
}

unsigned int TbStringNCat(char* destination, const char* source, unsigned int maxChars)
{
    return NCat(destination, source, maxChars);
}
unsigned int TbStringNCat(wchar_t* destination, const wchar_t* source, unsigned int maxChars)
{
    return NCat(destination, source, maxChars);
}
unsigned int TbStringNCat(char* destination, const wchar_t* source, unsigned int maxChars)
{
    return NCat(destination, source, maxChars);
}
unsigned int TbStringNCat(wchar_t* destination, const char* source, unsigned int maxChars)
{
    return NCat(destination, source, maxChars);
}

unsigned int TbStringLen(const char* str)
{
    return Len(str);
}
unsigned int TbStringLen(const wchar_t* str)
{
    return Len(str);
}
unsigned int TbStringLen(const unsigned short* str)
{
    return Len(str);
}
unsigned int TbStringLenUSB(const unsigned short* str)
{
    return Len(str);
}

bool TbStringEqual(const char* s1, const char* s2)
{
    return Equal(s1, s2);
}
bool TbStringEqual(const wchar_t* s1, const wchar_t* s2)
{
    return Equal(s1, s2);
}
bool TbStringEqualIgnoreCase(const char* s1, const char* s2)
{
    return EqualIgnoreCase(s1, s2);
}
bool TbStringEqualIgnoreCase(const wchar_t* s1, const wchar_t* s2)
{
    return EqualIgnoreCase(s1, s2);
}

unsigned int TbReplaceCharsInString(char* destination, const char* charSet, char newChar)
{
    return ReplaceChars(destination, charSet, newChar);
}
unsigned int TbReplaceCharsInString(wchar_t* destination, const wchar_t* charSet, wchar_t newChar)
{
    return ReplaceChars(destination, charSet, newChar);
}
unsigned int TbReplaceCharInString(char* destination, char oldChar, char newChar)
{
    const char charSet[2] = {oldChar, 0};
    return ReplaceChars(destination, charSet, newChar);
}
unsigned int TbReplaceCharInString(wchar_t* destination, wchar_t oldChar, wchar_t newChar)
{
    const wchar_t charSet[2] = {oldChar, 0};
    return ReplaceChars(destination, charSet, newChar);
}

bool TbStringTrimBegin(char* destination)
{
    return TrimBegin(destination);
}
bool TbStringTrimBegin(wchar_t* destination)
{
    return TrimBegin(destination);
}
bool TbStringTrimEnd(char* destination)
{
    return TrimEnd(destination);
}
bool TbStringTrimEnd(wchar_t* destination)
{
    return TrimEnd(destination);
}
bool TbStringRemoveQuotes(char* destination, char quoteChar)
{
    return RemoveQuotes(destination, quoteChar);
}
bool TbStringRemoveQuotes(wchar_t* destination, wchar_t quoteChar)
{
    return RemoveQuotes(destination, quoteChar);
}

char* TbStringToUpperCase(char* s)
{
    return ToUpperString(s);
}
wchar_t* TbStringToUpperCase(wchar_t* s)
{
    return ToUpperString(s);
}
char* TbStringToLowerCase(char* s)
{
    return ToLowerString(s);
}
wchar_t* TbStringToLowerCase(wchar_t* s)
{
    return ToLowerString(s);
}
char TbToUpperCaseChar(char c)
{
    return ToUpper(c);
}
wchar_t TbToUpperCaseChar(wchar_t c)
{
    return ToUpper(c);
}
char TbToLowerCaseChar(char c)
{
    return ToLower(c);
}
wchar_t TbToLowerCaseChar(wchar_t c)
{
    return ToLower(c);
}

char TbDigitToHexChar(int digit, bool upperCaseLetters)
{
    const int d = digit & 15;
    if (d < 10)
        return static_cast<char>('0' + d);
    return static_cast<char>((upperCaseLetters ? 'A' : 'a') + (d - 10));
}

int TbHexCharToDigit(int c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    return -1;
}
