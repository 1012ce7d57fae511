// Bounded string functions on zero-terminated strings of char, wchar_t and
// unsigned short (16-bit USB string) elements. They never allocate and never
// fail with a status: a bad bound is reported by the checking assertion and
// the function carries on as documented.
#pragma once

#include <cwchar>

// Copy into [destination, destinationLimit); always terminates, returns the terminator.
char* TbStringLCopy(char* destination, char* destinationLimit, const char* source);
wchar_t* TbStringLCopy(wchar_t* destination, wchar_t* destinationLimit, const wchar_t* source);
char* TbStringLCopy(char* destination, char* destinationLimit, const wchar_t* source);
wchar_t* TbStringLCopy(wchar_t* destination, wchar_t* destinationLimit, const char* source);

// Append within [destination, destinationLimit); returns the terminator.
char* TbStringLCat(char* destination, char* destinationLimit, const char* source);
wchar_t* TbStringLCat(wchar_t* destination, wchar_t* destinationLimit, const wchar_t* source);
char* TbStringLCat(char* destination, char* destinationLimit, const wchar_t* source);
wchar_t* TbStringLCat(wchar_t* destination, wchar_t* destinationLimit, const char* source);

// Copy at most maxChars - 1 elements and terminate; returns the count copied.
unsigned int TbStringNCopy(char* destination, const char* source, unsigned int maxChars);
unsigned int TbStringNCopy(wchar_t* destination, const wchar_t* source, unsigned int maxChars);
unsigned int TbStringNCopy(char* destination, const wchar_t* source, unsigned int maxChars);
unsigned int TbStringNCopy(wchar_t* destination, const char* source, unsigned int maxChars);
unsigned int TbStringNCopy(unsigned short* destination, const unsigned short* source, unsigned int maxChars);
// char -> unsigned short sign-extends (0xE9 becomes 0xFFE9); kept on purpose.
unsigned int TbStringNCopy(unsigned short* destination, const char* source, unsigned int maxChars);

// Append with maxChars the capacity of the whole destination; returns the new length.
unsigned int TbStringNCat(char* destination, const char* source, unsigned int maxChars);
unsigned int TbStringNCat(wchar_t* destination, const wchar_t* source, unsigned int maxChars);
unsigned int TbStringNCat(char* destination, const wchar_t* source, unsigned int maxChars);
unsigned int TbStringNCat(wchar_t* destination, const char* source, unsigned int maxChars);

unsigned int TbStringLen(const char* str);
unsigned int TbStringLen(const wchar_t* str);
unsigned int TbStringLen(const unsigned short* str);
unsigned int TbStringLenUSB(const unsigned short* str);

bool TbStringEqual(const char* s1, const char* s2);
bool TbStringEqual(const wchar_t* s1, const wchar_t* s2);
bool TbStringEqualIgnoreCase(const char* s1, const char* s2);
bool TbStringEqualIgnoreCase(const wchar_t* s1, const wchar_t* s2);

unsigned int TbReplaceCharsInString(char* destination, const char* charSet, char newChar);
unsigned int TbReplaceCharsInString(wchar_t* destination, const wchar_t* charSet, wchar_t newChar);
unsigned int TbReplaceCharInString(char* destination, char oldChar, char newChar);
unsigned int TbReplaceCharInString(wchar_t* destination, wchar_t oldChar, wchar_t newChar);

bool TbStringTrimBegin(char* destination);
bool TbStringTrimBegin(wchar_t* destination);
bool TbStringTrimEnd(char* destination);
bool TbStringTrimEnd(wchar_t* destination);
bool TbStringRemoveQuotes(char* destination, char quoteChar);
bool TbStringRemoveQuotes(wchar_t* destination, wchar_t quoteChar);

char* TbStringToUpperCase(char* s);
wchar_t* TbStringToUpperCase(wchar_t* s);
char* TbStringToLowerCase(char* s);
wchar_t* TbStringToLowerCase(wchar_t* s);
char TbToUpperCaseChar(char c);
wchar_t TbToUpperCaseChar(wchar_t c);
char TbToLowerCaseChar(char c);
wchar_t TbToLowerCaseChar(wchar_t c);

char TbDigitToHexChar(int digit, bool upperCaseLetters);
int TbHexCharToDigit(int c);
