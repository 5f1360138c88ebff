// The shell's output and result formatter alone: what Ctrl-C leaves written, and what the shell then says it wrote.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

#include "tools/corvane-sql/Output.h"
#include "tools/corvane-sql/ResultFormatter.h"

namespace corvane::shell {
namespace {

// Rows of about 40 bytes: 3000 of them overflow the output's buffer once, so that some
// went out on their own and the rest were still buffered when Ctrl-C came.
TEST(OutputCancel, RowsCountedAsWrittenAreTheRowsThatWentOut) {
  for (const OutputFormat format : {OutputFormat::Csv, OutputFormat::Json, OutputFormat::Table}) {
    SCOPED_TRACE(CResultFormatter::FormatName(format));
    std::FILE* file = std::tmpfile();
    ASSERT_NE(nullptr, file);
    std::atomic<bool> cancel{false};
    {
      COutput out(fileno(file));
      CResultFormatter formatter(format, out, 0, &cancel);
      formatter.Begin({{"TAG", Cell::Text}});
      auto row = [](int i) {
        return std::vector<Cell>{{Cell::Text, "row-" + std::to_string(i) + std::string(30, 'x')}};
      };
      for (int i = 0; i < 10; ++i) formatter.Row(row(i));
      ASSERT_TRUE(formatter.EndBatch());
      for (int i = 10; i < 3000; ++i) formatter.Row(row(i));
      cancel = true;
      EXPECT_FALSE(formatter.Row(row(3000)));
      formatter.End(false);
      std::rewind(file);
      std::string text;
      for (int c; (c = std::fgetc(file)) != EOF;) text += static_cast<char>(c);
      size_t rows = 0;
      for (size_t at = 0; (at = text.find("row-", at)) != std::string::npos; ++at) ++rows;
      EXPECT_EQ(rows, formatter.RowsWritten());
      EXPECT_LT(10u, rows);
      EXPECT_GT(3000u, rows);
      // The last row written is whole: its line ends.
      const size_t last = text.rfind("row-");
      EXPECT_NE(std::string::npos, text.find('\n', last));
    }
    std::fclose(file);
  }
}

}  // namespace
}  // namespace corvane::shell
