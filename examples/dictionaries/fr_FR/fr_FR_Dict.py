# French messages of the example program (UTF-8). One entry per line:
#   messages[<English key in quotes>] = r<translation in quotes> (see strings/locale.h)
messages['ZMXUTI_CoreUtils is up (depth %d), serving from the %s.'] = r'ZMXUTI_CoreUtils est prêt (profondeur %d), servi par %s.'
messages['Allocating through each entry point:'] = r'Allocation par chaque point d\'entrée :'
messages['Found %d errors in %s'] = r'%2$s : %1$d erreurs trouvées'
messages['Down again (depth %d).'] = r'Arrêt terminé (profondeur %d).'
messages['Line one\nLine two'] = r'Première ligne\nDeuxième ligne'
messages['Quoted \"%s\"'] = r'Entre guillemets « %s »'
messages['Open file'] = r'Ouvrir le fichier'
messages['Cancel'] = r'Annuler'
