// A fixed mix of realistic statements and their SQLite equivalents against tables with
// the same columns, for measuring how fast statements are parsed and prepared.
#pragma once

namespace corvane::bench {

struct Statement {
  const char* corvane;
  const char* sqlite;
};

// Procedures have no counterpart in SQLite; their equivalent reads a table that has
// one column per parameter, filtered by the same values.
inline const Statement kMix[] = {
    {"SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP > "
     "DATEADD('hh', -1, NOW()) AND TIMESTAMP <= NOW()",
     "SELECT TAGNAME, TIMESTAMP, VALUE, QUALITY FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP > "
     "datetime('now', '-1 hours') AND TIMESTAMP <= datetime('now')"},
    {"SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Flow' AND TIMESTAMP >= '2024-01-01 00:00:00' AND TIMESTAMP "
     "< '2024-01-02 00:00:00' ORDER BY TIMESTAMP DESC LIMIT 500",
     "SELECT * FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Flow' AND TIMESTAMP >= '2024-01-01 00:00:00' AND TIMESTAMP "
     "< '2024-01-02 00:00:00' ORDER BY TIMESTAMP DESC LIMIT 500"},
    {"SELECT TOP 100 r.TIMESTAMP, r.VALUE AS v FROM RAWDATA_DOUBLE r WHERE r.TAGNAME = ? AND r.TIMESTAMP BETWEEN "
     "DATEADD('dd', -7, NOW()) AND NOW()",
     "SELECT r.TIMESTAMP, r.VALUE AS v FROM RAWDATA_DOUBLE r WHERE r.TAGNAME = ? AND r.TIMESTAMP > datetime('now', "
     "'-7 days') AND r.TIMESTAMP < datetime('now') LIMIT 100"},
    {"INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('Plant.Area1.Temp', '2024-01-01 12:00:00', "
     "21.5, 192)",
     "INSERT INTO RAWDATA (TAGNAME, TIMESTAMP, VALUE, QUALITY) VALUES ('Plant.Area1.Temp', '2024-01-01 12:00:00', "
     "21.5, 192)"},
    {"UPDATE RAWDATA SET VALUE = 22.0, QUALITY = 192 WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 "
     "12:00:00'",
     "UPDATE RAWDATA SET VALUE = 22.0, QUALITY = 192 WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 "
     "12:00:00'"},
    {"EXEC GET_VALUES 'Plant.Area1.Temp', DATEADD('hh', -8, NOW()), NOW()",
     "SELECT * FROM GET_VALUES WHERE TAGNAME = 'Plant.Area1.Temp' AND STARTTIME = datetime('now', '-8 hours') AND "
     "ENDTIME = datetime('now')"},
    {"{CALL HDA_ANALOG('Plant.Area1.Flow', ?, ?, 60000, 'AVG')}",
     "SELECT * FROM HDA_ANALOG WHERE TAGNAME = 'Plant.Area1.Flow' AND STARTTIME = ? AND ENDTIME = ? AND INTERVAL = "
     "60000 AND AGGREGATE = 'AVG'"},
    {"DELETE FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 12:00:00'",
     "DELETE FROM RAWDATA WHERE TAGNAME = 'Plant.Area1.Temp' AND TIMESTAMP = '2024-01-01 12:00:00'"},
};

inline const char* const kSchema =
    "CREATE TABLE RAWDATA (TAGNAME TEXT, TIMESTAMP TEXT, VALUE, QUALITY INTEGER);"
    "CREATE TABLE RAWDATA_DOUBLE (TAGNAME TEXT, TIMESTAMP TEXT, VALUE REAL, QUALITY INTEGER);"
    "CREATE TABLE GET_VALUES (TAGNAME TEXT, STARTTIME TEXT, ENDTIME TEXT, TIMESTAMP TEXT, VALUE, QUALITY INTEGER);"
    "CREATE TABLE HDA_ANALOG (TAGNAME TEXT, STARTTIME TEXT, ENDTIME TEXT, INTERVAL INTEGER, AGGREGATE TEXT, "
    "TIMESTAMP TEXT, VALUE, QUALITY INTEGER);";

}  // namespace corvane::bench
