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
  EXPECT_EQ(guard_text(""), "");
}

TEST(Engine, SchemaAndGuardOfEachArePartOfTheProgram) {
  for (const char* engine : {"sqlite", "postgresql", "mariadb"}) {
    EXPECT_NE(schema_text(engine).find("create table if not exists userinfo"), std::string_view::npos) << engine;
    EXPECT_NE(guard_text(engine).find("keyinfo: this code is used"), std::string_view::npos) << engine;
  }
}

TEST(Engine, DatesAreSelectedAsText) {
  EXPECT_EQ(date_text(engine_of("SQLite"), "predate"), "predate");
  EXPECT_EQ(date_text(engine_of("PostgreSQL"), "predate"), "left(cast(predate as text), 19)");
}
