set debuginfod enabled off
set disable-randomization off
break look
run
up
print units
print timed_units
print free_lock
print lock
print timed_lock
print twice_lock
print timed_recursive_lock
print changed
print timed_changed
print numbers
print none
print queue
print empty_queue
print *in
print *idle_one
print net
print running
print pipeline
print words
print unused
print measure
print *words_base
print *measure_base
print group
print idle
print *(ovel::semaphore *) zeroed
print *(ovel::recursive_mutex *) scribbled
print *(ovel::timed_condition *) zeroed
print *(ovel::list<short> *) zeroed
print *(ovel::list<short> *) scribbled
print *(work_queue *) zeroed
print *(work_queue *) scribbled
print *(ovel::petri_place *) zeroed
print *(ovel::petri_transition *) zeroed
print *(ovel::petri_transition *) scribbled
print *(ovel::petri_net *) scribbled
print *(ovel::net *) zeroed
print *(ovel::net *) scribbled
print *(ovel::work_group *) zeroed
print *(ovel::work_group *) scribbled
kill
