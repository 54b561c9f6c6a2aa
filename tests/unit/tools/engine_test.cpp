#include "zelvanctl/engine.h"

#include <gtest/gtest.h>

using namespace zelvan::ctl;

TEST(Engine, IsToldByTheNameThatTheDriverGives) {
  EXPECT_EQ(engine_of("SQLite").name, "sqlite");
  EXPECT_EQ(engine_of("SQLITE3").name, "sqlite");
  EXPECT_EQ(engine_of("PostgreSQL").name, "postgresql");
  EXPECT_EQ(engine_of("MariaDB").name, "mariadb");
  EXPECT_EQ(engine_of("MySQL").name, "mariadb");
}

TEST(Engine, AnUnknownOneHasNoSchema) {
  EXPECT_EQ(engine_of("Oracle").name, "");
  EXPECT_EQ(engine_of("").name, "");
  EXPECT_EQ(schema_text(""), "");
}

TEST(Engine, TheSchemaOfSqliteIsPartOfTheProgram) {
  EXPECT_NE(schema_text("sqlite").find("create table if not exists userinfo"), std::string_view::npos);
}

TEST(Engine, DatesAreSelectedAsText) {
  EXPECT_EQ(date_text(engine_of("SQLite"), "predate"), "predate");
  EXPECT_EQ(date_text(engine_of("PostgreSQL"), "predate"), "to_char(predate, 'YYYY-MM-DD HH24:MI:SS')");
}
