# The README's example compiles as it stands.
add_test(NAME Readme.ExampleCompiles
  COMMAND sh -c "sed -n '/^```c$/,/^```$/p' README.md | grep -v '^```' | '${CMAKE_C_COMPILER}' -std=c11 -Wall -Wextra -Werror -fsyntax-only -I interface -x c - "
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
