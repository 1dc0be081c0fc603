# SPDX-License-Identifier: BSD-3-Clause
# quorvel select on the sample data: classes, inverse, components of the positions, --count
# with and without writing, the messages, and several selections as one pipeline giving the same
# file as the commands one after the other.
include(${CMAKE_CURRENT_LIST_DIR}/quorvel.cmake)

quorvel(0 "1368\n" select ${data}/sample_c.las --range 2 --count)
quorvel(0 "13040\n" select ${data}/sample_c.las --range 2 --inverse --count)
quorvel(0 "12357\n" select ${data}/sample_c.las --field Positions --range 650:660 --count)
quorvel(0 "14408\n" select ${data}/sample_c.las --field Positions --coordinate 0
        --range 674500:674700 --count)
quorvel(0 "0\n" select ${data}/sample_c.las --field Positions --range 640:650 --count)

quorvel(0 "quorvel select: 13893 points" select ${data}/sample_c.las --range 2,6
        -o ${WORK_DIR}/two.las)
quorvel(0 "classes: 2:1368 6:12525" info ${WORK_DIR}/two.las)
quorvel(0 "quorvel select: 12305 points" select ${WORK_DIR}/two.las --field Positions
        --range 650:660 -o ${WORK_DIR}/roofs.las)
file(WRITE ${WORK_DIR}/select.json "[
  \"${data}/sample_c.las\",
  {\"command\": \"select\", \"range\": \"2,6\"},
  {\"command\": \"select\", \"field\": \"Positions\", \"range\": \"650:660\"},
  \"${WORK_DIR}/piped.las\"
]")
quorvel(0 "quorvel pipeline: 12305 points" pipeline ${WORK_DIR}/select.json)
expect_same_file(${WORK_DIR}/roofs.las ${WORK_DIR}/piped.las "two selections against the pipeline")

quorvel(1 "quorvel: error: select: ERROR: no f_Nothing" select ${data}/sample_c.las
        --field Nothing --range 1 -o ${WORK_DIR}/never.las)
quorvel(2 "--range: \"x\" is not a value or low:high of finite numbers" select
        ${data}/sample_c.las --range x --count)
quorvel(2 "--coordinate: \"3\" is not one of 0, 1, 2" select ${data}/sample_c.las --range 1 --coordinate 3
        --count)
quorvel(2 "--range or --where is required" select ${data}/sample_c.las --count)
quorvel(2 "--output or --count is required" select ${data}/sample_c.las --range 2)
if(EXISTS ${WORK_DIR}/never.las)
  message(FATAL_ERROR "a failed selection wrote its output")
endif()
