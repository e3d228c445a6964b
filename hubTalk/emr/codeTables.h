// The site's code tables for outbound EMR messages: provider short codes
// (from the file named by ShortCodeFile) and test codes for study
// descriptions (TestCodeFile). Each table is loaded whole and replaces the
// previous one only when the load succeeded. Only the EMR thread loads and
// reads them: no lock.
#pragma once
#include <string>

// Short-code file: one record per line, `fields` fields separated by
// `separator`, or by TAB from the first line holding one onwards; with a
// comma, a double-quoted stretch is one field (its commas become blanks).
// The key is the key column, lower-cased; a repeated key is stored as
// "key-1", "key-2", ... The name text is nameColumn, or firstNameColumn cut
// to 60 characters (with secondNameColumn: "%.60s %.50s"), or the key. A
// column of -1 is absent. An empty line ends the file.
// 0; -1 when the file cannot be opened; -2 when the first line has another
// field count (later such lines are skipped).
int loadCodes(const char* path, int fields, int codeColumn, int keyColumn, int firstNameColumn,
              int secondNameColumn, int nameColumn, char separator);
// Test-code file: "code^description" lines, double quotes ignored; the key
// is the description lower-cased without blanks. 0; -1 when the file cannot
// be opened; -2 when the first line has no '^'.
int loadTests(const char* path);

// The code of a study description ("\u003c"/"\u003e" read as "<"/">"), or "".
std::string getTestCode(const char* description);
// The short code of a provider by last name, checked against the first name
// (and middle name); "" when none matches. matchedName receives the name
// text of the matching record.
std::string getShortCode(const char* first, const char* middle, const char* last,
                         std::string* matchedName = nullptr);

// Before each study that needs a code: loads the table again when its file
// changed since the last load or that load is an hour old, and reports a
// missing or malformed file to the service. The eClinical layouts are tried
// 5, 3 and 7 fields in turn; the others read 3 fields.
void refreshShortCodes(bool eclinicalLayouts);
void refreshTestCodes();
