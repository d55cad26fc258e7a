# Fails unless the picture of the rooms in the file `page` shows what the build wrote into the file `rooms`.
file(READ ${page} text)
file(READ ${rooms} built)
string(FIND "${text}" "flowchart TD\n${built}```" found)
if(found EQUAL -1)
    message(FATAL_ERROR "The picture of the rooms in ${page} is not that of the build:\n${built}")
endif()
